// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "callers.h"
#include "ratelimit.h"
#include "reply.h"
#include "reporter.h"

#include <QObject>

#include <functional>
#include <map>

class Authenticator;
class MethodOptions;
class Methods;

/// The authentication service's object on the bus. It identifies callers, checks their rights (root may call
/// everything, a user what concerns that user), enforces the limits, and delegates the rest. The D-Bus interface file
/// describes each call.
class AuthService : public QObject
{
    Q_OBJECT

public:
    /// Creates the service on `bus`. All arguments must outlive this object.
    AuthService(const SystemBus *bus, const Methods *methods, const MethodOptions *options,
                Authenticator *authenticator);
    ~AuthService() override;

private:
    /// Produces the reply for a caller.
    using Handler = std::function<Reply(const Caller &caller)>;
    /// Creates the handler of a call from its arguments, which have the types that the interface file gives.
    using Call = std::function<Handler(const QVariantList &arguments)>;

    /// A user's remaining allowance.
    struct Allowance
    {
        RateLimit calls;
        RateLimit attempts;
        LogLimit refusals;

        Allowance();
    };

    static int filter(sd_bus_message *message, void *service, sd_bus_error *);
    static int answer(sd_bus_message *call, void *service, sd_bus_error *);

    void addCalls();
    void respond(sd_bus_message *call, const Caller &caller, const Handler &handler);
    bool mayCall(const Caller &caller);
    Reply openAttempt(const Caller &caller, uint uid, const QString &method, const QVariantMap &data);
    void logRefusal(const QString &member, const Caller &caller, const QString &error);

    const Methods *const m_methods;
    const MethodOptions *const m_options;
    Authenticator *const m_authenticator;
    Callers m_callers;
    Reporter m_reporter;
    std::map<QByteArray, Call> m_calls;
    std::map<uint, Allowance> m_allowances;
    sd_bus_slot *m_filter = nullptr;
    sd_bus_slot *m_object = nullptr;
};
