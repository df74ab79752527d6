// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "authservice.h"

#include "authenticator.h"
#include "authserviceinterface.h"
#include "busvalues.h"
#include "errors.h"
#include "log.h"
#include "requestdata.h"
#include "servicelimits.h"
#include "systembus.h"

#include <authd/authservice.h>

#include <cerrno>
#include <memory>

namespace {

using Message = std::shared_ptr<sd_bus_message>;

void replyWithError(sd_bus_message *call, const QString &name, const QString &text)
{
    sd_bus_reply_method_errorf(call, name.toUtf8().constData(), "%s", text.toUtf8().constData());
}

} // namespace

AuthService::Allowance::Allowance()
    : calls(Limits::CallsPerSecond, Limits::CallBurst)
    , attempts(Limits::AttemptsPerSecond, Limits::AttemptBurst)
    , refusals(Limits::RefusalsPerSecond, Limits::RefusalBurst)
{
}

AuthService::AuthService(const SystemBus *bus, const Methods *methods, const MethodOptions *options,
                         Authenticator *authenticator)
    : m_methods(methods)
    , m_options(options)
    , m_authenticator(authenticator)
    , m_callers(bus->handle())
    , m_reporter(bus, authenticator, options)
{
    addCalls();
    connect(&m_callers, &Callers::gone, this, [this](const QString &name) {
        m_reporter.unsubscribe(name);
        m_authenticator->forgetCaller(name);
    });
    sd_bus_add_filter(bus->handle(), &m_filter, filter, this);
    sd_bus_add_object_vtable(bus->handle(), &m_object, LibAuthd::AuthService::ObjectPath.data(),
                             LibAuthd::AuthService::Interface.data(), authServiceInterface(answer), this);
}

AuthService::~AuthService()
{
    sd_bus_slot_unref(m_object);
    sd_bus_slot_unref(m_filter);
}

// Runs before the library processes a message, so it must be quick.
int AuthService::filter(sd_bus_message *message, void *service, sd_bus_error *)
{
    auto *const self = static_cast<AuthService *>(service);
    const char *const sender = sd_bus_message_get_sender(message);
    if (!sender || sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0)
        return 0;
    const std::optional<Caller> caller = self->m_callers.find(sender);
    // Calls that the library answers itself count too, so identify every caller.
    const bool isWithinLimits =
        caller ? self->mayCall(*caller)
               : self->m_callers.identify(sender, [self](const Caller &known) { self->mayCall(known); });
    if (isWithinLimits)
        return 0;
    sd_bus_reply_method_errorf(message, Errors::LimitsExceeded.data(), "The caller makes too many calls");
    return 1;
}

int AuthService::answer(sd_bus_message *call, void *service, sd_bus_error *)
{
    auto *const self = static_cast<AuthService *>(service);
    const char *const sender = sd_bus_message_get_sender(call);
    QVariantList arguments;
    const int result = BusValues::read(call, arguments);
    Handler handler;
    if (result >= 0) {
        handler = self->m_calls.at(sd_bus_message_get_member(call))(arguments);
    } else {
        for (const QVariant &argument : qAsConst(arguments))
            RequestData::wipe(argument);
        Reply refusal = result == -E2BIG ? Reply(Errors::LimitsExceeded, QStringLiteral("The call has too much data"))
                                         : Reply(Errors::InvalidArgs, QStringLiteral("No call takes such a value"));
        handler = [refusal](const Caller &) {
            return refusal;
        };
    }
    if (const std::optional<Caller> caller = self->m_callers.find(sender)) {
        self->respond(call, *caller, handler);
        return 1;
    }
    const Message kept(sd_bus_message_ref(call), sd_bus_message_unref);
    self->m_callers.await(sender,
                          [self, kept, handler](const Caller &caller) { self->respond(kept.get(), caller, handler); });
    return 1;
}

void AuthService::respond(sd_bus_message *call, const Caller &caller, const Handler &handler)
{
    const Reply reply = handler(caller);
    if (reply.isError()) {
        logRefusal(QString::fromLatin1(sd_bus_message_get_member(call)), caller, reply.error);
        replyWithError(call, reply.error, reply.text);
        return;
    }
    sd_bus_message *message = nullptr;
    if (sd_bus_message_new_method_return(call, &message) >= 0 && BusValues::append(message, reply.values) >= 0)
        sd_bus_send(nullptr, message, nullptr);
    else
        sd_bus_reply_method_errorf(call, SD_BUS_ERROR_FAILED, "The reply cannot be sent");
    sd_bus_message_unref(message);
}

bool AuthService::mayCall(const Caller &caller)
{
    return caller.isRoot() || m_allowances[caller.uid].calls.pass();
}

Reply AuthService::openAttempt(const Caller &caller, uint uid, const QString &method, const QVariantMap &data)
{
    if (!caller.isRoot() && !m_allowances[caller.uid].attempts.pass())
        return Reply(Errors::LimitsExceeded, QStringLiteral("The user opens too many attempts"));
    return m_authenticator->authenticate(caller, uid, method, data);
}

void AuthService::logRefusal(const QString &member, const Caller &caller, const QString &error)
{
    const std::optional<int> unlogged = caller.isRoot() ? 0 : m_allowances[caller.uid].refusals.pass();
    if (!unlogged)
        return;
    Log::Fields fields = {{"call", member}, {"caller", caller.uid}, {"error", error}};
    if (*unlogged > 0)
        fields.append({"unlogged-before", *unlogged});
    Log::write(Log::Notice, "refused", fields);
}
