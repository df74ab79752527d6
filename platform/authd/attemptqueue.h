// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "attempt.h"

#include <QHash>
#include <QObject>
#include <QTimer>

#include <chrono>
#include <map>

/// The open attempts, and whose turn it is. A method serves one user at a time, so one attempt is active and the others
/// wait: root's callers come first, then the user who has had no turn for longest. Whoever keeps others waiting is cut
/// short, so that another user's attempt begins within five seconds. An attempt that waits for the user's input takes
/// nobody's turn. No attempt outlives its time.
///
/// Nothing here calls back at once: what becomes of a change is told when the event loop runs.
class AttemptQueue : public QObject
{
    Q_OBJECT

public:
    /// How long an attempt may keep another user's waiting.
    static constexpr std::chrono::milliseconds TurnLimit{4000};
    /// How long an ordinary user's attempt may run while one of root's callers waits.
    static constexpr std::chrono::milliseconds TurnLimitForRoot{3000};

    /// Attempts have `timeLimit` from their opening or renewal.
    explicit AttemptQueue(std::chrono::milliseconds timeLimit);

    /// Opens an attempt; the user must have none.
    AttemptId open(uint uid, const QString &method, const Caller &caller, const QVariantMap &data);
    /// Has an open attempt wait for a turn with `data`, and gives it its whole time again.
    void renew(AttemptId id, const QVariantMap &data);
    /// The attempt waits for the user's input from now on, and its turn is over.
    void awaitInput(AttemptId id);
    /// Removes the attempt and returns it.
    Attempt close(AttemptId id);

    /// The attempt; null when it is not open. Valid until the next change.
    Attempt *find(AttemptId id);
    /// The attempt whose turn it is, likewise.
    Attempt *active() { return find(m_active); }
    /// The user's attempt, likewise.
    Attempt *ofUser(uint uid);
    /// The attempts that belong to the connection.
    QVector<AttemptId> ofCaller(const QString &name) const;

Q_SIGNALS:
    /// The attempt has its turn; it is active.
    void turnCame(AttemptId id);
    /// The attempt has to wait for its turn.
    void mustWait(AttemptId id);
    /// The attempt is to be closed, for one of the reasons in Reasons.
    void mustEnd(AttemptId id, const QString &reason);

private:
    void schedule() { m_timer.start(0); }
    void work();
    /// The waiting attempt of another user that is to be served first; null when there is none.
    const Attempt *nextWaiting(uint exceptUid) const;
    /// Whether `a` is to be served before `b`.
    bool precedes(const Attempt &a, const Attempt &b) const;
    /// How long the active attempt may still go on; negative when nobody waits.
    std::chrono::milliseconds untilCut();
    void begin(Attempt &attempt);

    const std::chrono::milliseconds m_timeLimit;
    /// By number, and so in the order of opening.
    std::map<AttemptId, Attempt> m_attempts;
    AttemptId m_last = NoAttempt;
    AttemptId m_active = NoAttempt;
    /// Who had the last turn, which goes on through all the attempts that follow while others wait.
    uint m_turnUid = 0;
    QElapsedTimer m_turn;
    /// When each user had a turn, as a count of turns.
    QHash<uint, quint64> m_served;
    quint64 m_turns = 0;
    QTimer m_timer;
};
