// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "accounts.h"
#include "attemptqueue.h"
#include "methods.h"
#include "ratelimit.h"
#include "reply.h"
#include "sessions.h"
#include "userstates.h"

#include <authd/notificationhandler.h>

#include <QHash>
#include <QObject>

#include <deque>
#include <functional>
#include <map>

class LockStore;

/// Drives the methods: opens attempts, has each take its turn with its method, takes the outcomes, counts and locks.
/// Which calls a caller may make about which user is for AuthService to check.
///
/// A method knows one request at a time and names no user in its outcomes, so what it tells is about the active
/// attempt.
class Authenticator : public QObject, private NotificationHandler
{
    Q_OBJECT

public:
    /// All must outlive this object. The methods tell it what happens from now on.
    Authenticator(const Methods *methods, const Accounts *accounts, LockStore *locks, Sessions *sessions,
                  std::chrono::milliseconds timeLimit);
    ~Authenticator() override;

    /// Goes on with the caller's attempt of user `uid` that awaits input, or opens one; the answer holds its number.
    /// Without data the method only gets ready.
    Reply authenticate(const Caller &caller, uint uid, const QString &method, const QVariantMap &data);
    /// Gives up an attempt on behalf of `caller`, whose it must be unless root calls.
    Reply cancel(const Caller &caller, AttemptId id);
    /// Gives up the attempts of a connection that has gone.
    void forgetCaller(const QString &name);
    Reply unlock(uint uid);
    Reply startSession(uint uid, bool manageClient);
    Reply stopSession(uint uid, bool manageClient);
    /// Tells the methods of sessions that have gone on since the daemon before.
    void resumeSessions(const Sessions::Map &sessions);
    /// The state of `uid`: attempt, name and details.
    Reply state(uint uid) const;
    /// How often root has unlocked `uid`.
    Reply unlocks(uint uid) const;

Q_SIGNALS:
    void authenticated(const AttemptName &attempt, uint uid, const QString &method);
    /// `code` is ResultCodes::None when the method gave none.
    void authenticationFailed(const AttemptName &attempt, uint uid, const QString &method, int code,
                              const QString &name, bool isCounted, int attemptsLeft);
    void attemptGivenUp(const AttemptName &attempt, uint uid, const QString &method, const QString &reason);
    void stateChanged(uint uid, const UserStates::State &state);
    /// The option of `uid`, 0 for the method as a whole.
    void optionHasChanged(uint uid, const QString &method, const QString &option, const QVariant &value);

private:
    // NotificationHandler
    void succeed(const QString &method) override;
    void finish(const QString &method, bool success, const QMap<QString, QVariant> &params) override;
    void inputRequested(const QString &method, const QMap<QString, QVariant> &params) override;
    void restartAuth(const QString &method, uint uid) override;
    void lockUser(const QString &method, uint uid, bool lock, const QString &reason, uint duration) override;
    void logEvent(const QString &method, const QString &level, const QString &event, const QString &details) override;
    void optionChanged(const QString &method, uint uid, const QString &option, const QVariant &value,
                       bool computed) override;

    /// Later, when no method is on the stack, since it is for calling methods; in the order in which it was told.
    void postpone(std::function<void()> action);
    /// Does what has been postponed.
    void catchUp();
    /// Postpones `handle` for the active attempt, when that still lacks an outcome.
    void takeOutcome(const char *outcome, const QString &method, const std::function<void(Attempt &)> &handle);
    void handleSuccess(Attempt attempt);
    void handleFailure(Attempt attempt, const QMap<QString, QVariant> &params);
    void handleInputRequest(Attempt &attempt, const QMap<QString, QVariant> &params);
    void begin(AttemptId id);
    void giveUp(AttemptId id, const QString &reason);
    /// The same for the user's open attempt; false when there is none without an outcome.
    bool giveUpOf(uint uid, const QString &reason);
    /// Has the method forget its request, and wipes the data that it may share.
    void forgetRequest(const QString &method, QVariantMap &data);
    void tellMethodsOfLock(uint uid, bool locked, const QString &reason, uint duration);

    const Methods *const m_methods;
    const Accounts *const m_accounts;
    LockStore *const m_locks;
    Sessions *const m_sessions;
    UserStates m_states;
    AttemptQueue m_queue;
    /// Whose request each method has in mind.
    QHash<QString, uint> m_requests;
    /// Lines in the log about options, by whose they are.
    std::map<uint, LogLimit> m_changes;
    std::deque<std::function<void()>> m_postponed;
};
