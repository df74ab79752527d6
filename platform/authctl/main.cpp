// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "commandline.h"
#include "output.h"
#include "service.h"

#include <QCoreApplication>

#include <sys/prctl.h>

// A mistake in the definition of the command line may end the program. NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char *argv[])
{
    // Secrets pass through this process: leave no core file, and let no other process of the user trace it.
    prctl(PR_SET_DUMPABLE, 0);
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
