// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "attemptqueue.h"

#include "states.h"

#include <algorithm>
#include <tuple>

using namespace std::chrono;

AttemptQueue::AttemptQueue(milliseconds timeLimit)
    : m_timeLimit(timeLimit)
{
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &AttemptQueue::work);
}

AttemptId AttemptQueue::open(uint uid, const QString &method, const Caller &caller, const QVariantMap &data)
{
    const AttemptId id = ++m_last;
    Attempt &attempt = m_attempts[id];
    attempt.id = id;
    attempt.uid = uid;
    attempt.method = method;
    attempt.caller = caller;
    renew(id, data);
    return id;
}

void AttemptQueue::renew(AttemptId id, const QVariantMap &data)
{
    Attempt &attempt = *find(id);
    attempt.data = data;
    attempt.phase = Attempt::Queued;
    attempt.deadline = QDeadlineTimer(m_timeLimit);
    attempt.waiting.start();
    attempt.hasReportedWait = false;
    if (m_active == id)
        m_active = NoAttempt;
    schedule();
}

void AttemptQueue::awaitInput(AttemptId id)
{
    find(id)->phase = Attempt::AwaitingInput;
    if (m_active == id)
        m_active = NoAttempt;
    schedule();
}

Attempt AttemptQueue::close(AttemptId id)
{
    const auto node = m_attempts.extract(id);
    if (m_active == id)
        m_active = NoAttempt;
    schedule();
    return node.mapped();
}

Attempt *AttemptQueue::find(AttemptId id)
{
    const auto found = m_attempts.find(id);
    return found == m_attempts.end() ? nullptr : &found->second;
}

Attempt *AttemptQueue::ofUser(uint uid)
{
    const auto found = std::find_if(m_attempts.begin(), m_attempts.end(),
                                    [uid](const auto &entry) { return entry.second.uid == uid; });
    return found == m_attempts.end() ? nullptr : &found->second;
}

QVector<AttemptId> AttemptQueue::ofCaller(const QString &name) const
{
    QVector<AttemptId> ids;
    for (const auto &[id, attempt] : m_attempts) {
        if (attempt.caller.name == name)
            ids << id;
    }
    return ids;
}

void AttemptQueue::work()
{
    QVector<AttemptId> overdue;
    for (const auto &[id, attempt] : m_attempts) {
        if (attempt.deadline.hasExpired() && attempt.phase != Attempt::Answered)
            overdue << id;
    }
    for (const AttemptId id : qAsConst(overdue))
        Q_EMIT mustEnd(id, Reasons::TimedOut);

    if (const Attempt *current = active()) {
        if (current->phase != Attempt::Answered && untilCut() == 0ms)
            Q_EMIT mustEnd(m_active, Reasons::CutShort);
    }
    if (m_active == NoAttempt) {
        if (const Attempt *next = nextWaiting(0))
            begin(m_attempts.at(next->id));
    }

    auto wait = milliseconds::max();
    for (auto &[id, attempt] : m_attempts) {
        if (attempt.phase == Attempt::Queued && !attempt.hasReportedWait) {
            attempt.hasReportedWait = true;
            Q_EMIT mustWait(id);
        }
        if (attempt.phase != Attempt::Answered)
            wait = std::min(wait, milliseconds(attempt.deadline.remainingTime()));
    }
    const milliseconds cut = untilCut();
    if (cut >= 0ms)
        wait = std::min(wait, cut);
    if (wait != milliseconds::max())
        m_timer.start(std::max(wait, 1ms));
}

void AttemptQueue::begin(Attempt &attempt)
{
    // Keep the turn's clock running if the same user continues while another waits. Otherwise a user could hold the
    // turn by opening one attempt after another.
    if (attempt.uid != m_turnUid || !nextWaiting(attempt.uid)) {
        m_turnUid = attempt.uid;
        m_turn.start();
    }
    m_active = attempt.id;
    attempt.phase = Attempt::Active;
    m_served[attempt.uid] = ++m_turns;
    Q_EMIT turnCame(attempt.id);
}

const Attempt *AttemptQueue::nextWaiting(uint exceptUid) const
{
    const Attempt *next = nullptr;
    for (const auto &entry : m_attempts) {
        const Attempt &attempt = entry.second;
        if (attempt.phase == Attempt::Queued && attempt.uid != exceptUid && (!next || precedes(attempt, *next)))
            next = &attempt;
    }
    return next;
}

bool AttemptQueue::precedes(const Attempt &a, const Attempt &b) const
{
    const auto rank = [this](const Attempt &attempt) {
        const bool hadItsTurn = attempt.uid == m_turnUid && m_turn.hasExpired(TurnLimit.count());
        return std::make_tuple(hadItsTurn, !attempt.caller.isRoot(), m_served.value(attempt.uid), attempt.id);
    };
    return rank(a) < rank(b);
}

milliseconds AttemptQueue::untilCut()
{
    const Attempt *current = active();
    const Attempt *next = current ? nextWaiting(current->uid) : nullptr;
    if (!next)
        return -1ms;
    const milliseconds turn{m_turn.elapsed()};
    if (next->caller.isRoot() && !current->caller.isRoot())
        return std::max(TurnLimitForRoot - turn, 0ms);
    // A new arrival must not cut the turn short at once: what counts is the shorter of the turn and the longest wait.
    milliseconds longest{0};
    for (const auto &entry : m_attempts) {
        if (entry.second.phase == Attempt::Queued)
            longest = std::max(longest, milliseconds(entry.second.waiting.elapsed()));
    }
    return std::max(TurnLimit - std::min(turn, longest), 0ms);
}
