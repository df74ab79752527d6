// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "authenticator.h"

#include "errors.h"
#include "lockstore.h"
#include "log.h"
#include "requestdata.h"
#include "servicelimits.h"
#include "states.h"

Authenticator::Authenticator(const Methods *methods, const Accounts *accounts, LockStore *locks, Sessions *sessions,
                             std::chrono::milliseconds timeLimit)
    : m_methods(methods)
    , m_accounts(accounts)
    , m_locks(locks)
    , m_sessions(sessions)
    , m_states(locks)
    , m_queue(timeLimit)
{
    connect(&m_states, &UserStates::changed, this, &Authenticator::stateChanged);
    connect(&m_queue, &AttemptQueue::turnCame, this, &Authenticator::begin);
    connect(&m_queue, &AttemptQueue::mustEnd, this, &Authenticator::giveUp);
    connect(&m_queue, &AttemptQueue::mustWait, this, [this](AttemptId id) {
        const Attempt &attempt = *m_queue.find(id);
        m_states.set(attempt.uid, attempt.name(), States::Queued, {{States::Method, attempt.method}});
    });
    for (const Method &method : *methods)
        method.plugin->setNotificator(this);
}

Authenticator::~Authenticator()
{
    for (const Method &method : *m_methods)
        method.plugin->setNotificator(nullptr);
}

Reply Authenticator::authenticate(const Caller &caller, uint uid, const QString &method, const QVariantMap &data)
{
    catchUp();
    for (const Reply &check : {m_accounts->check(uid), m_methods->check(method), RequestData::checkData(data)}) {
        if (check.isError())
            return check;
    }
    if (const std::optional<Lock> lock = m_locks->find(uid))
        return Reply(Errors::UserLocked, QStringLiteral("The user is locked: ") + lock->reason);

    if (const Attempt *present = m_queue.ofUser(uid)) {
        const bool isOwn = present->caller.name == caller.name;
        if (!isOwn && !caller.isRoot())
            return Reply(Errors::Busy, QStringLiteral("Another program has an open attempt for this user"));
        const bool mayEnter = present->phase == Attempt::AwaitingInput || present->phase == Attempt::Restarted;
        if (isOwn && mayEnter && present->method == method && !data.isEmpty()) {
            const AttemptId id = present->id;
            if (present->phase == Attempt::Restarted)
                forgetRequest(method, m_queue.find(id)->data);
            m_queue.renew(id, data);
            m_states.prepare(uid, {id, caller.name}, States::Queued, {{States::Method, method}});
            return Reply({id});
        }
        giveUp(present->id, Reasons::Replaced);
    }
    if (m_queue.ofCaller(caller.name).size() >= Limits::AttemptsPerConnection)
        return Reply(Errors::LimitsExceeded, QStringLiteral("The caller has too many open attempts"));

    const AttemptId id = m_queue.open(uid, method, caller, data);
    // The state is reported from the event loop, after the reply with the attempt's number: as pending, or as queued if
    // the attempt has to wait.
    m_states.prepare(uid, {id, caller.name}, States::Queued, {{States::Method, method}});
    Log::write(
        Log::Info, "attempt-opened",
        {{"attempt", id}, {"method", method}, {"uid", uid}, {"caller", caller.uid}, {"challenge", data.isEmpty()}});
    return Reply({id});
}

Reply Authenticator::cancel(const Caller &caller, AttemptId id)
{
    catchUp();
    const Attempt *attempt = m_queue.find(id);
    if (!attempt || (!caller.isRoot() && attempt->caller.name != caller.name))
        return Reply(Errors::NoAttempt, QStringLiteral("The caller has no such open attempt"));
    giveUp(id, Reasons::Cancelled);
    return Reply();
}

void Authenticator::forgetCaller(const QString &name)
{
    catchUp();
    const QVector<AttemptId> ids = m_queue.ofCaller(name);
    for (const AttemptId id : ids)
        giveUp(id, Reasons::CallerGone);
}

Reply Authenticator::unlock(uint uid)
{
    Reply check = m_accounts->check(uid);
    if (check.isError())
        return check;
    catchUp();
    m_locks->countUnlock(uid);
    if (m_locks->unlock(uid)) {
        Log::write(Log::Notice, "user-unlocked", {{"uid", uid}});
        m_states.set(uid, {}, States::Idle);
        notifyMethodsOfLock(uid, false, QString(), 0);
    }
    return Reply();
}

Reply Authenticator::startSession(uint uid, bool manageClient)
{
    Reply check = m_accounts->check(uid);
    if (check.isError())
        return check;
    Log::write(Log::Info, "session-started", {{"uid", uid}, {"manage-client", manageClient}});
    m_sessions->start(uid, manageClient);
    for (const Method &method : *m_methods)
        method.plugin->handleUserSessionTriggered(uid, true, manageClient);
    return Reply();
}

Reply Authenticator::stopSession(uint uid, bool manageClient)
{
    Reply check = m_accounts->check(uid);
    if (check.isError())
        return check;
    catchUp();
    Log::write(Log::Info, "session-stopped", {{"uid", uid}, {"manage-client", manageClient}});
    m_sessions->stop(uid);
    for (const Method &method : *m_methods)
        method.plugin->handleUserSessionTriggered(uid, false, manageClient);
    if (!manageClient)
        return Reply();
    if (!giveUpOf(uid, Reasons::SessionStopped))
        m_states.set(uid, {}, States::Idle);
    // Reset the methods: a method that still has a request would restart the client as soon as it exits.
    for (const Method &method : *m_methods) {
        if (m_requests.value(method.name) == uid && m_requests.remove(method.name))
            method.plugin->reset();
    }
    return Reply();
}

void Authenticator::resumeSessions(const Sessions::Map &sessions)
{
    for (auto session = sessions.cbegin(); session != sessions.cend(); ++session)
        startSession(session.key(), session.value());
}

Reply Authenticator::state(uint uid) const
{
    Reply check = m_accounts->check(uid);
    if (check.isError())
        return check;
    const UserStates::State state = m_states.find(uid);
    return Reply({state.attempt.id, state.name, state.details});
}

Reply Authenticator::unlocks(uint uid) const
{
    Reply check = m_accounts->check(uid);
    return check.isError() ? check : Reply({m_locks->unlocks(uid)});
}

void Authenticator::begin(AttemptId id)
{
    const Attempt &attempt = *m_queue.find(id);
    Log::write(Log::Info, "attempt-begun", {{"attempt", id}, {"method", attempt.method}, {"uid", attempt.uid}});
    m_states.set(attempt.uid, attempt.name(), States::Pending, {{States::Method, attempt.method}});
    m_requests.insert(attempt.method, attempt.uid);
    AuthPluginInterface &plugin = *m_methods->find(attempt.method);
    plugin.reset();
    plugin.authenticate(attempt.uid, attempt.data);
}

void Authenticator::giveUp(AttemptId id, const QString &reason)
{
    const bool wasActive = m_queue.active() == m_queue.find(id);
    Attempt attempt = m_queue.close(id);
    Log::write(Log::Notice, "attempt-given-up",
               {{"attempt", id}, {"method", attempt.method}, {"uid", attempt.uid}, {"reason", reason}});
    if (wasActive)
        forgetRequest(attempt.method, attempt.data);
    else
        RequestData::wipe(attempt.data);
    Q_EMIT attemptGivenUp(attempt.name(), attempt.uid, attempt.method, reason);
    m_states.set(attempt.uid, attempt.name(), States::Idle);
}

bool Authenticator::giveUpOf(uint uid, const QString &reason)
{
    const Attempt *attempt = m_queue.ofUser(uid);
    if (!attempt || attempt->phase == Attempt::Answered)
        return false;
    giveUp(attempt->id, reason);
    return true;
}

void Authenticator::forgetRequest(const QString &method, QVariantMap &data)
{
    m_requests.remove(method);
    m_methods->find(method)->reset();
    RequestData::wipe(data);
}

void Authenticator::notifyMethodsOfLock(uint uid, bool locked, const QString &reason, uint duration)
{
    for (const Method &method : *m_methods)
        method.plugin->handleUserLocked(uid, locked, reason, duration);
}

void Authenticator::postpone(std::function<void()> action)
{
    if (m_postponed.empty())
        QMetaObject::invokeMethod(this, &Authenticator::catchUp, Qt::QueuedConnection);
    m_postponed.push_back(std::move(action));
}

void Authenticator::catchUp()
{
    while (!m_postponed.empty()) {
        const std::function<void()> action = std::move(m_postponed.front());
        m_postponed.pop_front();
        action();
    }
}
