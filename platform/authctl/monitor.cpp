// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "commands.h"
#include "output.h"
#include "service.h"

ExitCode Commands::monitor(Service &service, const Output &output, const Request &)
{
    const QObject scope;
    QObject::connect(
        &service, &AuthServiceInterface::Authenticated, &scope,
        [&](qulonglong attempt, uint uid, const QString &method) { output.success(attempt, uid, method); });
    QObject::connect(
        &service, &AuthServiceInterface::AuthenticationFailed, &scope,
        [&](qulonglong attempt, uint uid, const QString &method, int code, const QString &name, bool isCounted,
            int attemptsLeft) { output.failed(attempt, uid, method, code, name, isCounted, attemptsLeft); });
    QObject::connect(&service, &AuthServiceInterface::AttemptGivenUp, &scope,
                     [&](qulonglong attempt, uint uid, const QString &method, const QString &reason) {
                         output.givenUp(attempt, uid, method, reason);
                     });
    QObject::connect(&service, &AuthServiceInterface::StateChanged, &scope,
                     [&](qulonglong attempt, uint uid, const QString &state, const QVariantMap &details) {
                         output.state(attempt, uid, state, details);
                     });
    QObject::connect(&service, &AuthServiceInterface::MethodOptionChanged, &scope,
                     [&](const QString &method, const QString &option, const QDBusVariant &value) {
                         output.option(Output::NoUser, method, option, value.variant());
                     });
    QObject::connect(&service, &AuthServiceInterface::UserMethodOptionChanged, &scope,
                     [&](uint uid, const QString &method, const QString &option, const QDBusVariant &value) {
                         output.option(uid, method, option, value.variant());
                     });
    Service::result(service.Subscribe());
    service.handleReports();
    return Success;
}
