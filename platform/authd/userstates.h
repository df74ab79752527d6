// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "attempt.h"

#include <QHash>
#include <QObject>
#include <QSet>

class LockStore;

/// The state of each user, as the service reports it.
class UserStates : public QObject
{
    Q_OBJECT

public:
    struct State
    {
        AttemptName attempt;
        QString name;
        QVariantMap details;
    };

    /// `locks` must outlive this object.
    explicit UserStates(const LockStore *locks);

    /// The user's state; locked while the user has a lock, whatever else applies.
    State find(uint uid) const;
    /// Sets the user's state without reporting it yet.
    void prepare(uint uid, const AttemptName &attempt, const QString &name, const QVariantMap &details)
    {
        m_states.insert(uid, {attempt, name, details});
    }
    /// Sets the user's state and reports it. For a locked user, reports the lock instead, to whoever waits for the
    /// outcome of `attempt`; the new state shows only after the lock.
    void set(uint uid, const AttemptName &attempt, const QString &name, const QVariantMap &details = {});
    /// Reports a lock or an unlock, unless set() has already reported it.
    void handleLock(uint uid);
    /// Makes the next handleLock() report the user's lock.
    void expectLock(uint uid) { m_unreported.insert(uid); }

Q_SIGNALS:
    void changed(uint uid, const UserStates::State &state);

private:
    const LockStore *const m_locks;
    QHash<uint, State> m_states;
    /// The users with an unreported lock or unlock.
    QSet<uint> m_unreported;
};
