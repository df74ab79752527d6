// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "commands.h"
#include "output.h"
#include "secretprompt.h"
#include "service.h"
#include "states.h"
#include "users.h"

namespace {

// Keys of an attempt's data
const QString passwordKey = QStringLiteral("password");
const QString certKey = QStringLiteral("cert");
const QString pinKey = QStringLiteral("pin");

/// Prompts for the password or PIN and sends it. Afterwards only the D-Bus library's buffers hold a copy.
QDBusPendingReply<qulonglong> authenticate(Service &service, uint uid, const QString &method,
                                           const std::optional<QString> &cert)
{
    const Secret secret = readSecret(cert ? QStringLiteral("PIN of %1 for %2: ").arg(*cert, displayName(uid))
                                          : QStringLiteral("Password for %1: ").arg(displayName(uid)));
    if (cert)
        return service.Authenticate(uid, method, {{certKey, *cert}, {pinKey, secret.text()}});
    return service.Authenticate(uid, method, {{passwordKey, secret.text()}});
}

} // namespace

ExitCode Commands::login(Service &service, const Output &output, const Request &request)
{
    const uint uid = userId(request.user);
    const QString method = service.methodOrFirst(request.method);

    // Check for a lock first, so that a locked user is not prompted in vain.
    const auto before = Service::result(service.GetState(uid));
    if (before.argumentAt<1>() == States::Locked) {
        output.state(before.argumentAt<0>(), uid, before.argumentAt<1>(), before.argumentAt<2>());
        return Locked;
    }

    // The attempt belongs to this connection: if a signal kills this program, the service abandons the attempt.
    qulonglong ours = 0;
    ExitCode exitCode = Refused;
    const QObject scope;
    QObject::connect(&service, &AuthServiceInterface::Authenticated, &scope,
                     [&](qulonglong attempt, uint who, const QString &by) {
                         if (attempt == ours)
                             output.success(attempt, who, by);
                     });
    QObject::connect(&service, &AuthServiceInterface::AuthenticationFailed, &scope,
                     [&](qulonglong attempt, uint who, const QString &by, int code, const QString &codeName,
                         bool isCounted, int attemptsLeft) {
                         if (attempt == ours)
                             output.failed(attempt, who, by, code, codeName, isCounted, attemptsLeft);
                     });
    QObject::connect(&service, &AuthServiceInterface::AttemptGivenUp, &scope,
                     [&](qulonglong attempt, uint who, const QString &by, const QString &reason) {
                         if (attempt != ours)
                             return;
                         output.givenUp(attempt, who, by, reason);
                         if (reason == Reasons::TimedOut)
                             exitCode = Unreachable;
                     });
    QObject::connect(&service, &AuthServiceInterface::StateChanged, &scope,
                     [&](qulonglong attempt, uint who, const QString &state, const QVariantMap &details) {
                         if (attempt != ours)
                             return;
                         output.state(attempt, who, state, details);
                         if (state == States::Queued || state == States::Pending
                             || details.value(States::Restarted).toBool())
                             return;
                         if (state == States::Authenticated)
                             exitCode = Success;
                         else if (state == States::Locked)
                             exitCode = Locked;
                         service.finish();
                     });

    ours = Service::result(authenticate(service, uid, method, request.cert)).value();
    if (service.handleReports(request.timeout))
        return exitCode;
    service.Cancel(ours).waitForFinished(); // The attempt is over, whether or not this fails.
    throw Failure{Unreachable, QStringLiteral("Timed out waiting for the outcome")};
}
