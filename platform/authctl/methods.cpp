// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "commands.h"
#include "output.h"
#include "service.h"

ExitCode Commands::methods(Service &service, const Output &output, const Request &)
{
    const QStringList names = Service::result(service.GetMethods()).value();
    for (const QString &name : names)
        output.method(name, Service::result(service.GetMethodInfo(name)).value());
    return Success;
}
