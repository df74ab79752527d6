// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "attempt.h"

#include <QHash>
#include <QObject>
#include <QTimer>

#include <chrono>
#include <map>

/// The queue of open attempts. A method serves one user at a time, so one attempt is active and the others wait.
/// Attempts from root's callers come first, then those of the user whose last turn is longest ago; the user whose turn
/// has run out comes last. An active attempt that keeps others waiting is cut short, so that another user's attempt
/// begins within five seconds. An attempt that waits for the user's input occupies no turn. Every attempt has a
/// deadline.
///
/// No function emits a signal before it returns: the effects of a change are reported from the event loop.
class AttemptQueue : public QObject
{
    Q_OBJECT

public:
    /// How long an attempt may keep another user's attempt waiting.
    static constexpr std::chrono::milliseconds TurnLimit{4000};
    /// How long an ordinary user's attempt may run while an attempt of a root caller waits.
    static constexpr std::chrono::milliseconds TurnLimitForRoot{3000};

    /// An attempt times out `timeLimit` after it was opened or renewed.
    explicit AttemptQueue(std::chrono::milliseconds timeLimit);

    /// Opens an attempt. The user must have none.
    AttemptId open(uint uid, const QString &method, const Caller &caller, const QVariantMap &data);
    /// Queues an open attempt again with `data`, and restarts its time limit.
    void renew(AttemptId id, const QVariantMap &data);
    /// Marks the attempt as waiting for the user's input, and ends its turn.
    void awaitInput(AttemptId id);
    /// Removes the attempt and returns it.
    Attempt close(AttemptId id);

    /// Returns the attempt, or null when it is not open. The pointer is valid until the next change.
    Attempt *find(AttemptId id);
    /// The active attempt, or null; likewise.
    Attempt *active() { return find(m_active); }
    /// The user's attempt, or null; likewise.
    Attempt *ofUser(uint uid);
    /// The open attempts of the connection.
    QVector<AttemptId> ofCaller(const QString &name) const;

Q_SIGNALS:
    /// The attempt's turn has begun; it is now active.
    void turnCame(AttemptId id);
    /// The attempt has to wait for its turn.
    void mustWait(AttemptId id);
    /// The attempt must be closed, for one of the reasons in Reasons.
    void mustEnd(AttemptId id, const QString &reason);

private:
    void schedule() { m_timer.start(0); }
    void work();
    /// The waiting attempt that comes next, except those of `exceptUid`; null when there is none.
    const Attempt *nextWaiting(uint exceptUid) const;
    /// Whether `a` comes before `b`.
    bool precedes(const Attempt &a, const Attempt &b) const;
    /// How long the active attempt may still run; negative when no other user waits.
    std::chrono::milliseconds untilCut();
    void begin(Attempt &attempt);

    const std::chrono::milliseconds m_timeLimit;
    /// Ordered by number, which is the order of opening.
    std::map<AttemptId, Attempt> m_attempts;
    AttemptId m_last = NoAttempt;
    AttemptId m_active = NoAttempt;
    /// The user of the current or last turn. While others wait, the turn includes all of the user's consecutive
    /// attempts.
    uint m_turnUid = 0;
    QElapsedTimer m_turn;
    /// Each user's last turn, as a count of turns.
    QHash<uint, quint64> m_served;
    quint64 m_turns = 0;
    QTimer m_timer;
};
