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

/// The authentication service's object on the bus. Finds out who calls, lets root do everything and a user what
/// concerns that user, keeps everybody within the limits, and leaves the rest to others. What each call does stands in
/// the interface's description.
class AuthService : public QObject
{
    Q_OBJECT

public:
    /// A service on `bus`. All must outlive this object.
    AuthService(const SystemBus *bus, const Methods *methods, const MethodOptions *options,
                Authenticator *authenticator);
    ~AuthService() override;

private:
    /// What to answer to a caller.
    using Handler = std::function<Reply(const Caller &caller)>;
    /// The same for a call with arguments, which are of the types that the interface's description has.
    using Call = std::function<Handler(const QVariantList &arguments)>;

    /// What a user's calls may still do.
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
