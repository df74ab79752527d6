// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "world.h"

namespace Sequences {

/// Predicts what the method does: all states that it may have reached, since what is under way may arrive in any order.
class Model
{
public:
    explicit Model(const Setup &setup);

    /// Whether `event` can happen now, in all states.
    bool allows(const Event &event) const;
    /// Applies the event and, unless it is hurried, what follows before the client's process reports anything. If the
    /// event is overtaken, the next report comes before all else that follows; returns whether there is one.
    bool apply(const Event &event);
    /// Applies what follows from the next report of the process; false if there is none.
    bool advance();
    /// Applies what follows from reading a delayed watcher; false if it is not delayed.
    bool readWatcher();
    /// Applies the event and, unless it is hurried, all its consequences.
    void applyAll(const Event &event);
    /// The states, of which one is the real one.
    const QVector<World> &worlds() const { return m_worlds; }
    /// Leaves out the states that have turned out not to be the real one.
    void keep(const QVector<World> &worlds) { m_worlds = worlds; }

    /// Events that make progress from here and that random choice would seldom find, each repeated by its weight.
    QVector<Kind> next() const;
    /// The user whose first start is pending; the first user if there is none.
    uint delayedUser() const;

private:
    bool report();
    void settle();

    QVector<World> m_worlds;
    bool m_isHurried = false;
};

/// What can be seen of a state.
Observation observation(const World &world, bool withOptions);

} // namespace Sequences
