// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "authservice.h"

#include "authenticator.h"
#include "authserviceadaptor.h"
#include "errors.h"
#include "log.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

AuthService::AuthService(Authenticator *authenticator)
    : m_authenticator(authenticator)
{
    auto *adaptor = new AuthServiceAdaptor(this);
    connect(authenticator, &Authenticator::authenticated, adaptor, &AuthServiceAdaptor::Authenticated);
    connect(authenticator, &Authenticator::authenticationFailed, adaptor, &AuthServiceAdaptor::AuthenticationFailed);
    connect(authenticator, &Authenticator::stateChanged, adaptor, &AuthServiceAdaptor::StateChanged);
    connect(authenticator, &Authenticator::methodOptionChanged, adaptor,
            [adaptor](const QString &method, const QString &option, const QVariant &value) {
                Q_EMIT adaptor->MethodOptionChanged(method, option, QDBusVariant(value));
            });
    connect(authenticator, &Authenticator::userMethodOptionChanged, adaptor,
            [adaptor](uint uid, const QString &method, const QString &option, const QVariant &value) {
                Q_EMIT adaptor->UserMethodOptionChanged(uid, method, option, QDBusVariant(value));
            });
}

QStringList AuthService::GetMethods()
{
    answerAnyone([this](uint) { return Reply({m_authenticator->methods()}); });
    return {};
}

QVariantMap AuthService::GetMethodInfo(const QString &method)
{
    answerAnyone([this, method](uint) { return m_authenticator->methodInfo(method); });
    return {};
}

void AuthService::RequestChallenge(uint uid, const QString &method)
{
    answerUser(uid, [this, uid, method](uint) { return m_authenticator->openAttempt(uid, method, {}); });
}

void AuthService::Authenticate(uint uid, const QString &method, const QVariantMap &data)
{
    answerUser(uid, [this, uid, method, data](uint) { return m_authenticator->openAttempt(uid, method, data); });
}

void AuthService::Cancel(uint uid)
{
    answerUser(uid, [this, uid](uint) { return m_authenticator->cancel(uid); });
}

QString AuthService::GetState(uint uid, QVariantMap &)
{
    answerUser(uid, [this, uid](uint) { return m_authenticator->state(uid); });
    return {};
}

void AuthService::Unlock(uint uid)
{
    answerRoot([this, uid](uint) { return m_authenticator->unlock(uid); });
}

void AuthService::SessionStarted(uint uid, bool manageClient)
{
    answerRoot([this, uid, manageClient](uint) { return m_authenticator->startSession(uid, manageClient); });
}

void AuthService::SessionStopped(uint uid, bool manageClient)
{
    answerRoot([this, uid, manageClient](uint) { return m_authenticator->stopSession(uid, manageClient); });
}

QDBusVariant AuthService::GetMethodOption(const QString &method, const QString &option)
{
    answerAnyone([this, method, option](uint) { return m_authenticator->option(0, method, option); });
    return {};
}

QVariantMap AuthService::GetMethodOptions(const QString &method)
{
    answerAnyone([this, method](uint) { return m_authenticator->options(0, method); });
    return {};
}

void AuthService::SetMethodOption(const QString &method, const QString &option, const QDBusVariant &value)
{
    answerAnyone([this, method, option, value](uint caller) {
        return m_authenticator->setOption(caller, 0, method, option, value.variant());
    });
}

QDBusVariant AuthService::GetUserMethodOption(uint uid, const QString &method, const QString &option)
{
    answerUser(uid, [this, uid, method, option](uint) { return m_authenticator->option(uid, method, option); });
    return {};
}

QVariantMap AuthService::GetUserMethodOptions(uint uid, const QString &method)
{
    answerUser(uid, [this, uid, method](uint) { return m_authenticator->options(uid, method); });
    return {};
}

void AuthService::SetUserMethodOption(uint uid, const QString &method, const QString &option, const QDBusVariant &value)
{
    answerUser(uid, [this, uid, method, option, value](uint caller) {
        return m_authenticator->setOption(caller, uid, method, option, value.variant());
    });
}

void AuthService::answerAnyone(const Handler &handler)
{
    setDelayedReply(true);
    const QDBusMessage call = message();
    QDBusConnection bus = connection();
    auto *pending = new QDBusPendingCallWatcher(
        bus.interface()->asyncCall(QStringLiteral("GetConnectionUnixUser"), call.service()), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this,
            [call, bus, handler](QDBusPendingCallWatcher *finished) mutable {
                finished->deleteLater();
                const QDBusPendingReply<uint> caller = *finished;
                // An error means that the caller has gone.
                if (caller.isError())
                    return;
                const Reply reply = handler(caller.value());
                if (reply.isError())
                    Log::write(Log::Notice, "refused",
                               {{"call", call.member()}, {"caller", caller.value()}, {"error", reply.error}});
                if (!call.isReplyRequired())
                    return;
                bus.send(reply.isError() ? call.createErrorReply(reply.error, reply.text)
                                         : call.createReply(reply.values));
            });
}

void AuthService::answerUser(uint uid, const Handler &handler)
{
    answerAnyone([uid, handler](uint caller) {
        if (caller != 0 && caller != uid)
            return Reply(Errors::AccessDenied, QStringLiteral("This is for the user and for root"));
        if (uid == 0)
            return Reply(Errors::NoSuchUser, QStringLiteral("The user id 0 stands for no user"));
        return handler(caller);
    });
}

void AuthService::answerRoot(const Handler &handler)
{
    answerAnyone([handler](uint caller) {
        return caller == 0 ? handler(caller) : Reply(Errors::AccessDenied, QStringLiteral("This is for root"));
    });
}
