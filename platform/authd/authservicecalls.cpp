// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "authenticator.h"
#include "authservice.h"
#include "errors.h"
#include "methodoptions.h"
#include "methods.h"
#include "requestdata.h"

#include <QDBusVariant>

#include <memory>

// The handlers of the calls in the D-Bus interface file.

namespace {

using Handler = std::function<Reply(const Caller &)>;

Handler forUser(const QVariantList &arguments, const Handler &handler)
{
    return [uid = arguments.at(0).toUInt(), handler](const Caller &caller) {
        if (!caller.isRoot() && caller.uid != uid)
            return Reply(Errors::AccessDenied, QStringLiteral("Only the user and root may do this"));
        if (uid == 0)
            return Reply(Errors::NoSuchUser, QStringLiteral("User id 0 is not a user"));
        return handler(caller);
    };
}

Handler forRoot(const Handler &handler)
{
    return [handler](const Caller &caller) {
        return caller.isRoot() ? handler(caller) : Reply(Errors::AccessDenied, QStringLiteral("Only root may do this"));
    };
}

QVariant variant(const QVariant &argument)
{
    return qvariant_cast<QDBusVariant>(argument).variant();
}

} // namespace

void AuthService::addCalls()
{
    using Arguments = const QVariantList &;
    m_calls["GetMethods"] = [this](Arguments) {
        return [this](const Caller &) {
            return Reply({m_methods->names()});
        };
    };
    m_calls["GetMethodInfo"] = [this](Arguments a) {
        return [this, method = a.at(0).toString()](const Caller &) {
            return m_methods->info(method);
        };
    };
    m_calls["Subscribe"] = [this](Arguments) {
        return [this](const Caller &caller) {
            return m_reporter.subscribe(caller);
        };
    };
    m_calls["Unsubscribe"] = [this](Arguments) {
        return [this](const Caller &caller) {
            m_reporter.unsubscribe(caller.name);
            return Reply();
        };
    };
    m_calls["RequestChallenge"] = [this](Arguments a) {
        return forUser(a, [this, uid = a.at(0).toUInt(), method = a.at(1).toString()](const Caller &caller) {
            return openAttempt(caller, uid, method, {});
        });
    };
    m_calls["Authenticate"] = [this](Arguments a) {
        const auto entered = std::make_shared<RequestData::Entered>(a.at(2).toMap());
        return forUser(a, [this, uid = a.at(0).toUInt(), method = a.at(1).toString(), entered](const Caller &caller) {
            Reply reply = openAttempt(caller, uid, method, entered->data);
            if (!reply.isError())
                entered->data.clear(); // The attempt owns it now.
            return reply;
        });
    };
    m_calls["Cancel"] = [this](Arguments a) {
        return [this, attempt = a.at(0).toULongLong()](const Caller &caller) {
            return m_authenticator->cancel(caller, attempt);
        };
    };
    m_calls["GetState"] = [this](Arguments a) {
        return forUser(a, [this, uid = a.at(0).toUInt()](const Caller &) { return m_authenticator->state(uid); });
    };
    m_calls["GetUnlocks"] = [this](Arguments a) {
        return forUser(a, [this, uid = a.at(0).toUInt()](const Caller &) { return m_authenticator->unlocks(uid); });
    };
    m_calls["Unlock"] = [this](Arguments a) {
        return forRoot([this, uid = a.at(0).toUInt()](const Caller &) { return m_authenticator->unlock(uid); });
    };
    m_calls["SessionStarted"] = [this](Arguments a) {
        return forRoot([this, uid = a.at(0).toUInt(), manageClient = a.at(1).toBool()](const Caller &) {
            return m_authenticator->startSession(uid, manageClient);
        });
    };
    m_calls["SessionStopped"] = [this](Arguments a) {
        return forRoot([this, uid = a.at(0).toUInt(), manageClient = a.at(1).toBool()](const Caller &) {
            return m_authenticator->stopSession(uid, manageClient);
        });
    };
    m_calls["GetMethodOption"] = [this](Arguments a) {
        return [this, method = a.at(0).toString(), option = a.at(1).toString()](const Caller &caller) {
            return m_options->option(caller.uid, 0, method, option);
        };
    };
    m_calls["GetMethodOptions"] = [this](Arguments a) {
        return [this, method = a.at(0).toString()](const Caller &caller) {
            return m_options->options(caller.uid, 0, method);
        };
    };
    m_calls["SetMethodOption"] = [this](Arguments a) {
        return [this, method = a.at(0).toString(), option = a.at(1).toString(),
                value = variant(a.at(2))](const Caller &caller) {
            return m_options->setOption(caller.uid, 0, method, option, value);
        };
    };
    m_calls["GetUserMethodOption"] = [this](Arguments a) {
        return forUser(a, [this, uid = a.at(0).toUInt(), method = a.at(1).toString(), option = a.at(2).toString()](
                              const Caller &caller) { return m_options->option(caller.uid, uid, method, option); });
    };
    m_calls["GetUserMethodOptions"] = [this](Arguments a) {
        return forUser(a, [this, uid = a.at(0).toUInt(), method = a.at(1).toString()](const Caller &caller) {
            return m_options->options(caller.uid, uid, method);
        });
    };
    m_calls["SetUserMethodOption"] = [this](Arguments a) {
        return forUser(a, [this, uid = a.at(0).toUInt(), method = a.at(1).toString(), option = a.at(2).toString(),
                           value = variant(a.at(3))](const Caller &caller) {
            return m_options->setOption(caller.uid, uid, method, option, value);
        });
    };
}
