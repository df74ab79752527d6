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

/// Runs a command and returns the program's exit code. Throws a Failure when the command cannot go on.
using Command = std::function<ExitCode(Service &, const Output &, const Request &)>;

/// What the command line asks for. What was not given is absent; an empty text was given.
struct Request
{
    Command command;
    bool json = false;
    int timeout = 0; ///< In milliseconds, above 0.
    bool unmanaged = false;
    QString user; ///< The user whom the command is for; empty where it is for none.
    std::optional<QString> method;
    std::optional<QString> cert;
    std::optional<QString> option;
    std::optional<QString> value;
    std::optional<QString> optionUser;
    QString sessionEvent; ///< One of SessionStart and SessionStop.
};

inline const QString SessionStart = QStringLiteral("start");
inline const QString SessionStop = QStringLiteral("stop");

/// Fills `request` from the program's arguments, and returns nothing; or the exit code when the program ends with them:
/// after help or version were printed, or with wrong usage, which has then been reported.
std::optional<ExitCode> parseCommandLine(int argc, char *argv[], Request &request);
