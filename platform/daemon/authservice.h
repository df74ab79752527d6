// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "callers.h"
#include "ratelimit.h"
#include "reply.h"
#include "reporter.h"

#include <QDBusContext>
#include <QDBusVariant>
#include <QObject>

#include <functional>
#include <map>

class Authenticator;
class MethodOptions;
class Methods;

/// The authentication service's object on the bus. Finds out who calls, lets root do everything and a user what
/// concerns that user, keeps everybody within the limits, and leaves the rest to others. What each call does stands in
/// the interface's description.
class AuthService : public QObject, protected QDBusContext
{
    Q_OBJECT

public:
    /// A service on `bus`. All must outlive this object.
    AuthService(const QDBusConnection &bus, const Methods *methods, const MethodOptions *options,
                Authenticator *authenticator);

    // Called by the adaptor that is generated from the interface's description. Each answers later, when the caller is
    // known; the values returned are of no account.
    QStringList GetMethods();
    QVariantMap GetMethodInfo(const QString &method);
    void Subscribe();
    void Unsubscribe();
    qulonglong RequestChallenge(uint uid, const QString &method);
    qulonglong Authenticate(uint uid, const QString &method, const QVariantMap &data);
    void Cancel(qulonglong attempt);
    qulonglong GetState(uint uid, QString &state, QVariantMap &details);
    void Unlock(uint uid);
    void SessionStarted(uint uid, bool manageClient);
    void SessionStopped(uint uid, bool manageClient);
    QDBusVariant GetMethodOption(const QString &method, const QString &option);
    QVariantMap GetMethodOptions(const QString &method);
    void SetMethodOption(const QString &method, const QString &option, const QDBusVariant &value);
    QDBusVariant GetUserMethodOption(uint uid, const QString &method, const QString &option);
    QVariantMap GetUserMethodOptions(uint uid, const QString &method);
    void SetUserMethodOption(uint uid, const QString &method, const QString &option, const QDBusVariant &value);

private:
    /// What to answer to a caller.
    using Handler = std::function<Reply(const Caller &caller)>;

    /// What a user's calls may still do.
    struct Allowance
    {
        RateLimit calls;
        RateLimit attempts;
        RateLimit refusals;
        int unlogged = 0;

        Allowance();
    };

    void answerAnyone(const Handler &handler);
    void answerUser(uint uid, const Handler &handler);
    void answerRoot(const Handler &handler);
    Reply openAttempt(const Caller &caller, uint uid, const QString &method, const QVariantMap &data);
    void logRefusal(const QString &member, const Caller &caller, const QString &error);

    const Methods *const m_methods;
    const MethodOptions *const m_options;
    Authenticator *const m_authenticator;
    Callers m_callers;
    Reporter m_reporter;
    std::map<uint, Allowance> m_allowances;
};
