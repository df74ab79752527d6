// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

#include <optional>

/// Asks the authentication service how often root has unlocked the user. A short-lived helper process makes the call:
/// sd-bus does not work with the sandbox's bus proxy, and Qt's D-Bus library would add a thread to the process that
/// handles passwords.
namespace Unlocks {

/// The option that starts the program as the helper.
extern const QString option;

/// Returns the number, or nothing if the service does not reply within a second.
std::optional<uint> byRoot();
/// The helper's main function: prints the number and returns the exit code.
int run();

} // namespace Unlocks
