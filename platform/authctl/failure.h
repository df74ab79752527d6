// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

/// The program's exit codes, as documented in authctl(1).
enum ExitCode { Success = 0, Refused = 1, WrongUsage = 2, Locked = 3, Unreachable = 4 };

/// Thrown when a command fails. main() reports it and exits.
struct Failure
{
    ExitCode exitCode;
    QString text;
    QString error = {}; ///< The D-Bus error name, if there is one.
};
