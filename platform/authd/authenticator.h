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

/// Drives the methods: opens attempts, gives each its turn with its method, handles the outcomes, counts failures and
/// locks users. AuthService checks which calls a caller may make.
///
/// A method handles one request at a time and names no user in its outcomes, so an outcome applies to the active
/// attempt.
class Authenticator : public QObject, private NotificationHandler
{
    Q_OBJECT

public:
    /// Starts to receive the methods' notifications. All arguments must outlive this object.
    Authenticator(const Methods *methods, const Accounts *accounts, LockStore *locks, Sessions *sessions,
                  std::chrono::milliseconds timeLimit);
    ~Authenticator() override;

    /// Continues the caller's attempt for user `uid` if it waits for input, otherwise opens one. The reply holds the
    /// attempt's number. Without data the method only prepares.
    Reply authenticate(const Caller &caller, uint uid, const QString &method, const QVariantMap &data);
    /// Cancels an attempt on behalf of `caller`. Only root may cancel an attempt of another caller.
    Reply cancel(const Caller &caller, AttemptId id);
    /// Gives up the attempts of a connection that left the bus.
    void forgetCaller(const QString &name);
    Reply unlock(uint uid);
    Reply startSession(uint uid, bool manageClient);
    Reply stopSession(uint uid, bool manageClient);
    /// Reports sessions to the methods that began under a previous daemon and still exist.
    void resumeSessions(const Sessions::Map &sessions);
    /// Returns the state of `uid`: attempt, name and details.
    Reply state(uint uid) const;
    /// Returns how often root has unlocked `uid`.
    Reply unlocks(uint uid) const;

Q_SIGNALS:
    void authenticated(const AttemptName &attempt, uint uid, const QString &method);
    /// `code` is ResultCodes::None when the method did not report one.
    void authenticationFailed(const AttemptName &attempt, uint uid, const QString &method, int code,
                              const QString &name, bool isCounted, int attemptsLeft);
    void attemptGivenUp(const AttemptName &attempt, uint uid, const QString &method, const QString &reason);
    void stateChanged(uint uid, const UserStates::State &state);
    /// An option of `uid` has changed; 0 stands for the method as a whole.
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

    /// Queues an action that calls into methods, until no method is on the stack. Actions run in the order of their
    /// notifications.
    void postpone(std::function<void()> action);
    /// Runs the postponed actions.
    void catchUp();
    /// Postpones `handle` for the active attempt, unless that already has an outcome.
    void takeOutcome(const char *outcome, const QString &method, const std::function<void(Attempt &)> &handle);
    void handleSuccess(Attempt attempt);
    void handleFailure(Attempt attempt, const QMap<QString, QVariant> &params);
    void handleInputRequest(Attempt &attempt, const QMap<QString, QVariant> &params);
    void begin(AttemptId id);
    void giveUp(AttemptId id, const QString &reason);
    /// Gives up the user's open attempt. Returns false when the user has none, or one with an outcome.
    bool giveUpOf(uint uid, const QString &reason);
    /// Resets the method, and wipes the data, which the method may share.
    void forgetRequest(const QString &method, QVariantMap &data);
    void notifyMethodsOfLock(uint uid, bool locked, const QString &reason, uint duration);

    const Methods *const m_methods;
    const Accounts *const m_accounts;
    LockStore *const m_locks;
    Sessions *const m_sessions;
    UserStates m_states;
    AttemptQueue m_queue;
    /// The user of each method's current request.
    QHash<QString, uint> m_requests;
    /// Limits the log lines about option changes, per user.
    std::map<uint, LogLimit> m_changes;
    std::deque<std::function<void()>> m_postponed;
};
