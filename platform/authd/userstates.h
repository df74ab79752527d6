// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "attempt.h"

#include <QHash>
#include <QObject>
#include <QSet>

class LockStore;

/// In which state each user is, as the service's callers see it.
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

    /// The user's state; locked whatever else there is, as long as the user is.
    State find(uint uid) const;
    /// Sets the user's state without telling of it yet.
    void prepare(uint uid, const AttemptName &attempt, const QString &name, const QVariantMap &details)
    {
        m_states.insert(uid, {attempt, name, details});
    }
    /// Sets the user's state. That of a locked user shows only afterwards: for now, whoever waits for what becomes of
    /// `attempt` is told of the lock.
    void set(uint uid, const AttemptName &attempt, const QString &name, const QVariantMap &details = {});
    /// Tells of a lock that has come or gone, unless that has been told by set().
    void handleLock(uint uid);
    /// Has the next handleLock() tell of the user's lock.
    void expectLock(uint uid) { m_untold.insert(uid); }

Q_SIGNALS:
    void changed(uint uid, const UserStates::State &state);

private:
    const LockStore *const m_locks;
    QHash<uint, State> m_states;
    /// Whose locks have not been told of.
    QSet<uint> m_untold;
};
