// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "authservice.h"

#include "authenticator.h"
#include "authserviceadaptor.h"
#include "errors.h"
#include "log.h"
#include "methodoptions.h"
#include "methods.h"
#include "requestdata.h"
#include "servicelimits.h"

#include <QDBusConnection>
#include <QDBusMessage>

#include <memory>

namespace {

Reply tooManyCalls()
{
    return Reply(Errors::LimitsExceeded, QStringLiteral("The caller makes too many calls"));
}

} // namespace

AuthService::Allowance::Allowance()
    : calls(Limits::CallsPerSecond, Limits::CallBurst)
    , attempts(Limits::AttemptsPerSecond, Limits::AttemptBurst)
    , refusals(Limits::RefusalsPerSecond, Limits::RefusalBurst)
{
}

AuthService::AuthService(const QDBusConnection &bus, const Methods *methods, const MethodOptions *options,
                         Authenticator *authenticator)
    : m_methods(methods)
    , m_options(options)
    , m_authenticator(authenticator)
    , m_callers(bus)
    , m_reporter(bus, authenticator, options)
{
    new AuthServiceAdaptor(this);
    connect(&m_callers, &Callers::gone, this, [this](const QString &name) {
        m_reporter.unsubscribe(name);
        m_authenticator->forgetCaller(name);
    });
}

QStringList AuthService::GetMethods()
{
    answerAnyone([this](const Caller &) { return Reply({m_methods->names()}); });
    return {};
}

QVariantMap AuthService::GetMethodInfo(const QString &method)
{
    answerAnyone([this, method](const Caller &) { return m_methods->info(method); });
    return {};
}

void AuthService::Subscribe()
{
    answerAnyone([this](const Caller &caller) { return m_reporter.subscribe(caller); });
}

void AuthService::Unsubscribe()
{
    answerAnyone([this](const Caller &caller) {
        m_reporter.unsubscribe(caller.name);
        return Reply();
    });
}

qulonglong AuthService::RequestChallenge(uint uid, const QString &method)
{
    answerUser(uid, [this, uid, method](const Caller &caller) { return openAttempt(caller, uid, method, {}); });
    return {};
}

qulonglong AuthService::Authenticate(uint uid, const QString &method, const QVariantMap &data)
{
    const auto entered = std::make_shared<RequestData::Entered>(data);
    answerUser(uid, [this, uid, method, entered](const Caller &caller) {
        Reply reply = openAttempt(caller, uid, method, entered->data);
        if (!reply.isError())
            entered->data.clear(); // The attempt has it now.
        return reply;
    });
    return {};
}

void AuthService::Cancel(qulonglong attempt)
{
    answerAnyone([this, attempt](const Caller &caller) { return m_authenticator->cancel(caller, attempt); });
}

qulonglong AuthService::GetState(uint uid, QString &, QVariantMap &)
{
    answerUser(uid, [this, uid](const Caller &) { return m_authenticator->state(uid); });
    return {};
}

void AuthService::Unlock(uint uid)
{
    answerRoot([this, uid](const Caller &) { return m_authenticator->unlock(uid); });
}

void AuthService::SessionStarted(uint uid, bool manageClient)
{
    answerRoot([this, uid, manageClient](const Caller &) { return m_authenticator->startSession(uid, manageClient); });
}

void AuthService::SessionStopped(uint uid, bool manageClient)
{
    answerRoot([this, uid, manageClient](const Caller &) { return m_authenticator->stopSession(uid, manageClient); });
}

QDBusVariant AuthService::GetMethodOption(const QString &method, const QString &option)
{
    answerAnyone(
        [this, method, option](const Caller &caller) { return m_options->option(caller.uid, 0, method, option); });
    return {};
}

QVariantMap AuthService::GetMethodOptions(const QString &method)
{
    answerAnyone([this, method](const Caller &caller) { return m_options->options(caller.uid, 0, method); });
    return {};
}

void AuthService::SetMethodOption(const QString &method, const QString &option, const QDBusVariant &value)
{
    answerAnyone([this, method, option, value](const Caller &caller) {
        return m_options->setOption(caller.uid, 0, method, option, value.variant());
    });
}

QDBusVariant AuthService::GetUserMethodOption(uint uid, const QString &method, const QString &option)
{
    answerUser(uid, [this, uid, method, option](const Caller &caller) {
        return m_options->option(caller.uid, uid, method, option);
    });
    return {};
}

QVariantMap AuthService::GetUserMethodOptions(uint uid, const QString &method)
{
    answerUser(uid, [this, uid, method](const Caller &caller) { return m_options->options(caller.uid, uid, method); });
    return {};
}

void AuthService::SetUserMethodOption(uint uid, const QString &method, const QString &option, const QDBusVariant &value)
{
    answerUser(uid, [this, uid, method, option, value](const Caller &caller) {
        return m_options->setOption(caller.uid, uid, method, option, value.variant());
    });
}

void AuthService::answerAnyone(const Handler &handler)
{
    setDelayedReply(true);
    const QDBusMessage call = message();
    const QDBusConnection bus = connection();
    const auto answer = [call, bus](const Reply &reply) {
        if (call.isReplyRequired())
            bus.send(reply.isError() ? call.createErrorReply(reply.error, reply.text) : call.createReply(reply.values));
    };
    const bool mayWait = m_callers.identify(call.service(), [this, call, answer, handler](const Caller &caller) {
        if (!caller.isRoot() && !m_allowances[caller.uid].calls.pass()) {
            answer(tooManyCalls());
            return;
        }
        const Reply reply = handler(caller);
        if (reply.isError())
            logRefusal(call.member(), caller, reply.error);
        answer(reply);
    });
    if (!mayWait)
        answer(tooManyCalls());
}

void AuthService::answerUser(uint uid, const Handler &handler)
{
    answerAnyone([uid, handler](const Caller &caller) {
        if (!caller.isRoot() && caller.uid != uid)
            return Reply(Errors::AccessDenied, QStringLiteral("This is for the user and for root"));
        if (uid == 0)
            return Reply(Errors::NoSuchUser, QStringLiteral("The user id 0 stands for no user"));
        return handler(caller);
    });
}

void AuthService::answerRoot(const Handler &handler)
{
    answerAnyone([handler](const Caller &caller) {
        return caller.isRoot() ? handler(caller) : Reply(Errors::AccessDenied, QStringLiteral("This is for root"));
    });
}

Reply AuthService::openAttempt(const Caller &caller, uint uid, const QString &method, const QVariantMap &data)
{
    if (!caller.isRoot() && !m_allowances[caller.uid].attempts.pass())
        return Reply(Errors::LimitsExceeded, QStringLiteral("The user opens too many attempts"));
    return m_authenticator->authenticate(caller, uid, method, data);
}

void AuthService::logRefusal(const QString &member, const Caller &caller, const QString &error)
{
    Allowance &allowance = m_allowances[caller.uid];
    if (!caller.isRoot() && !allowance.refusals.pass()) {
        ++allowance.unlogged;
        return;
    }
    Log::Fields fields = {{"call", member}, {"caller", caller.uid}, {"error", error}};
    if (allowance.unlogged > 0)
        fields.append({"unlogged-before", allowance.unlogged});
    allowance.unlogged = 0;
    Log::write(Log::Notice, "refused", fields);
}
