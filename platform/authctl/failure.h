// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

/// The program's exit codes, as its manual page has them.
enum ExitCode { Success = 0, Refused = 1, WrongUsage = 2, Locked = 3, Unreachable = 4 };

/// Thrown when a command cannot go on; the program reports it and ends.
struct Failure
{
    ExitCode exitCode;
    QString text;
    QString error = {}; ///< The error's name on the bus, where it has one.
};
