// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "methodloader.h"
#include "reply.h"

#include <authd/notificationhandler.h>

#include <QDeadlineTimer>
#include <QHash>
#include <QObject>
#include <QStringList>

#include <functional>

class LockStore;

/// Drives the methods: opens attempts, takes their outcomes, counts, locks, and answers for options. Who may ask is for
/// the caller to check. Users are user ids that exist, never 0; anything else is answered with an error.
///
/// A method knows one request at a time and names no user in its outcomes, so it has at most one attempt open.
class Authenticator : public QObject, private NotificationHandler
{
    Q_OBJECT

public:
    /// `locks` must outlive this object.
    Authenticator(std::vector<Method> methods, LockStore *locks);
    /// Deletes the methods.
    ~Authenticator() override;

    /// The methods' names, the one to offer first in front.
    QStringList methods() const;
    Reply methodInfo(const QString &method) const;

    /// Opens an attempt of `uid` with what the user has entered; without any data the method only gets ready.
    Reply openAttempt(uint uid, const QString &method, const QVariantMap &data);
    /// Gives up the attempts of `uid` that are open.
    Reply cancel(uint uid);
    Reply unlock(uint uid);
    Reply startSession(uint uid, bool manageClient);
    Reply stopSession(uint uid, bool manageClient);
    /// The state of `uid` and its details.
    Reply state(uint uid) const;

    /// The value of an option of `uid`, 0 for the method as a whole. Only an option that nobody outside may write can
    /// be one that the method computes: such a one is asked of the method, and counts when it is of the type of the
    /// default. Any other is read from the store, and asking costs the method nothing.
    Reply option(uint uid, const QString &method, const QString &option);
    /// All options of `uid`, likewise.
    Reply options(uint uid, const QString &method);
    /// Writes an option on behalf of the user `writer`, as the method's rules allow it.
    Reply setOption(uint writer, uint uid, const QString &method, const QString &option, const QVariant &value);

Q_SIGNALS:
    void authenticated(uint uid, const QString &method);
    /// `code` is -1 when the method gave none.
    void authenticationFailed(uint uid, const QString &method, int code, const QString &name, int attemptsLeft);
    void stateChanged(uint uid, const QString &state, const QVariantMap &details);
    void methodOptionChanged(const QString &method, const QString &option, const QVariant &value);
    void userMethodOptionChanged(uint uid, const QString &method, const QString &option, const QVariant &value);

private:
    struct Attempt
    {
        enum Phase {
            Closed,
            Open,
            /// Open, but the method has put the user back to the challenge; the user may enter anew.
            Restarted,
            /// The outcome is here and waits for its turn.
            Answered
        };
        Phase phase = Closed;
        /// The user of the attempt, or of the last one; 0 before the first.
        uint uid = 0;
        bool hasCredentials = false;

        /// Whether its outcome is still to come.
        bool isOpen() const { return phase == Open || phase == Restarted; }
    };

    struct Entry : Method
    {
        explicit Entry(Method &&method)
            : Method(std::move(method))
        {
        }

        Attempt attempt;
        /// For whom the method is kept while the outcome of an attempt that was given up may still come in.
        uint keptFor = 0;
        QDeadlineTimer keptUntil;
    };

    struct State
    {
        QString name;
        QVariantMap details;
    };

    // NotificationHandler
    void succeed(const QString &method) override;
    void finish(const QString &method, bool success, const QMap<QString, QVariant> &params) override;
    void inputRequested(const QString &method, const QMap<QString, QVariant> &params) override;
    void restartAuth(const QString &method, uint uid) override;
    void lockUser(const QString &method, uint uid, bool lock, const QString &reason, uint duration) override;
    void logEvent(const QString &method, const QString &level, const QString &event, const QString &details) override;
    void optionChanged(const QString &method, uint uid, const QString &option, const QVariant &value,
                       bool computed) override;

    Entry *find(const QString &method);
    const Entry *find(const QString &method) const;
    /// An error for a user or a method that does not exist; none when both do.
    Reply checkUser(uint uid) const;
    Reply checkMethod(const QString &method) const;
    /// The same for options, which also the user 0 has.
    Reply checkOptions(uint uid, const QString &method) const;
    /// Later, when no method is on the stack, since it is for calling methods.
    void postpone(const std::function<void()> &action);
    void takeOutcome(const char *outcome, const QString &method, const std::function<void(Entry &)> &handle);
    void giveUp(Entry &entry);
    QVariant currentValue(Entry &entry, uint uid, const QString &option) const;
    State currentState(uint uid) const;
    /// While the user is locked, the new state shows only afterwards.
    void setState(uint uid, const QString &name, const QVariantMap &details);
    void tellLocked(uint uid, bool locked, const QString &reason, uint duration);

    std::vector<Entry> m_methods;
    LockStore *const m_locks;
    QHash<uint, State> m_states;
};
