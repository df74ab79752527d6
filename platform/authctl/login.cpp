// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "commands.h"
#include "output.h"
#include "secretprompt.h"
#include "service.h"
#include "users.h"

#include <daemon/states.h>

namespace {

// What the data of an attempt are called
const QString passwordKey = QStringLiteral("password");
const QString certKey = QStringLiteral("cert");
const QString pinKey = QStringLiteral("pin");

/// Asks for the password or PIN and sends it. Nothing of it is kept but what the D-Bus library has for itself.
QDBusPendingReply<> authenticate(Service &service, uint uid, const QString &method, const std::optional<QString> &cert)
{
    const Secret secret = readSecret(cert ? QStringLiteral("PIN of %1 for %2: ").arg(*cert, displayName(uid))
                                          : QStringLiteral("Password of %1: ").arg(displayName(uid)));
    if (cert)
        return service.Authenticate(uid, method, {{certKey, *cert}, {pinKey, secret.text()}});
    return service.Authenticate(uid, method, {{passwordKey, secret.text()}});
}

} // namespace

ExitCode Commands::login(Service &service, const Output &output, const Request &request)
{
    const uint uid = userId(request.user);
    const QString method = service.methodOrFirst(request.method);

    // Before anything is asked for in vain.
    const auto before = Service::result(service.GetState(uid));
    if (before.argumentAt<0>() == States::Locked) {
        output.state(uid, before.argumentAt<0>(), before.argumentAt<1>());
        return Locked;
    }

    // The time of this attempt begins with the service's word that it is under way.
    bool isOurs = false;
    ExitCode exitCode = Refused;
    const QObject scope;
    QObject::connect(&service, &AuthServiceInterface::Authenticated, &scope, [&](uint who, const QString &by) {
        if (isOurs && who == uid)
            output.success(who, by);
    });
    QObject::connect(&service, &AuthServiceInterface::AuthenticationFailed, &scope,
                     [&](uint who, const QString &by, int code, const QString &codeName, int attemptsLeft) {
                         if (isOurs && who == uid)
                             output.failed(who, by, code, codeName, attemptsLeft);
                     });
    QObject::connect(&service, &AuthServiceInterface::StateChanged, &scope,
                     [&](uint who, const QString &state, const QVariantMap &details) {
                         if (who != uid || (!isOurs && state != States::Pending))
                             return;
                         isOurs = true;
                         output.state(who, state, details);
                         if (state == States::Pending || details.value(States::Restarted).toBool())
                             return;
                         if (state == States::Authenticated)
                             exitCode = Success;
                         else if (state == States::Locked)
                             exitCode = Locked;
                         service.finish();
                     });

    Service::result(authenticate(service, uid, method, request.cert));
    if (service.handleReports(request.timeout))
        return exitCode;
    Service::result(service.Cancel(uid));
    throw Failure{Unreachable, QStringLiteral("No outcome in time")};
}
