// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "failure.h"

#include <QString>

#include <functional>
#include <optional>

class Output;
class Service;
struct Request;

/// Runs a command and returns the program's exit code. Throws a Failure when the command fails.
using Command = std::function<ExitCode(Service &, const Output &, const Request &)>;

/// The parsed command line. An option that was not given is absent; one that was given as an empty text is present and
/// empty.
struct Request
{
    Command command;
    bool json = false;
    int timeout = 0; ///< In milliseconds, above 0.
    bool unmanaged = false;
    QString user; ///< The user that the command applies to; empty for a command without one.
    std::optional<QString> method;
    std::optional<QString> cert;
    std::optional<QString> option;
    std::optional<QString> value;
    std::optional<QString> optionUser;
    QString sessionEvent; ///< One of SessionStart and SessionStop.
};

inline const QString SessionStart = QStringLiteral("start");
inline const QString SessionStop = QStringLiteral("stop");

/// Fills `request` from the program's arguments. Returns an exit code when the program must exit at once: after
/// printing help or the version, or after reporting a usage error.
std::optional<ExitCode> parseCommandLine(int argc, char *argv[], Request &request);
