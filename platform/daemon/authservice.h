// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "reply.h"

#include <QDBusContext>
#include <QDBusVariant>
#include <QObject>

#include <functional>

class Authenticator;

/// The authentication service's object on the bus. Finds out who calls, lets root do everything and a user what
/// concerns that user, and leaves the rest to the authenticator. What each call does stands in the interface's
/// description.
class AuthService : public QObject, protected QDBusContext
{
    Q_OBJECT

public:
    /// `authenticator` must outlive this object.
    explicit AuthService(Authenticator *authenticator);

    // Called by the adaptor that is generated from the interface's description. Each answers later, when the caller is
    // known; the values returned are of no account.
    QStringList GetMethods();
    QVariantMap GetMethodInfo(const QString &method);
    void RequestChallenge(uint uid, const QString &method);
    void Authenticate(uint uid, const QString &method, const QVariantMap &data);
    void Cancel(uint uid);
    QString GetState(uint uid, QVariantMap &details);
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
    /// What to answer to a caller with the given user id.
    using Handler = std::function<Reply(uint caller)>;

    void answerAnyone(const Handler &handler);
    void answerUser(uint uid, const Handler &handler);
    void answerRoot(const Handler &handler);

    Authenticator *const m_authenticator;
};
