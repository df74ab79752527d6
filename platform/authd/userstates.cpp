// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "userstates.h"

#include "lockstore.h"
#include "states.h"

UserStates::UserStates(const LockStore *locks)
    : m_locks(locks)
{
}

UserStates::State UserStates::find(uint uid) const
{
    State state = m_states.value(uid, {{}, States::Idle, {}});
    if (const std::optional<Lock> lock = m_locks->find(uid)) {
        state.name = States::Locked;
        state.details = {
            {States::Method, lock->method}, {States::Reason, lock->reason}, {States::Duration, lock->duration()}};
    }
    return state;
}

void UserStates::set(uint uid, const AttemptName &attempt, const QString &name, const QVariantMap &details)
{
    prepare(uid, attempt, name, details);
    const State state = find(uid);
    const bool isLocked = state.name == States::Locked;
    if (isLocked && attempt.id == NoAttempt)
        return;
    if (isLocked)
        m_unreported.remove(uid);
    Q_EMIT changed(uid, state);
}

void UserStates::handleLock(uint uid)
{
    if (m_unreported.remove(uid))
        Q_EMIT changed(uid, find(uid));
}
