// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "commandline.h"
#include "output.h"
#include "service.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    Request request;
    if (const std::optional<ExitCode> end = parseCommandLine(argc, argv, request))
        return *end;

    const Output output(request.json);
    try {
        Service service(request.timeout);
        return request.command(service, output, request);
    } catch (const Failure &failure) {
        output.failure(failure);
        return failure.exitCode;
    }
}
