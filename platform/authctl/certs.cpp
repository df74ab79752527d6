// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "commands.h"
#include "output.h"
#include "service.h"

namespace {

const QString certsOption = QStringLiteral("certs");

/// Whether the option holds its placeholder, which means that the list is still being fetched.
bool isPlaceholder(const QStringList &certs)
{
    return certs == QStringList{QStringLiteral(".")};
}

} // namespace

ExitCode Commands::certs(Service &service, const Output &output, const Request &request)
{
    const QString method = service.methodOrFirst(request.method);
    QStringList certs;
    const QObject scope;
    QObject::connect(&service, &AuthServiceInterface::MethodOptionChanged, &scope,
                     [&](const QString &of, const QString &option, const QDBusVariant &value) {
                         if (of != method || option != certsOption)
                             return;
                         certs = value.variant().toStringList();
                         if (!isPlaceholder(certs))
                             service.finish();
                     });
    Service::result(service.Subscribe());
    certs = Service::result(service.GetMethodOption(method, certsOption)).value().variant().toStringList();
    if (isPlaceholder(certs) && !service.handleReports(request.timeout))
        throw Failure{Unreachable, QStringLiteral("Timed out waiting for the certificate list")};

    for (const QString &cert : qAsConst(certs))
        output.cert(method, cert);
    return Success;
}
