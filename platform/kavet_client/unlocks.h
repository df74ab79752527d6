// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

#include <optional>

/// How often root has unlocked the user in the authentication service. It is asked in a short-lived process of its own:
/// the sandbox's proxy for the bus does not get on with sd-bus, and Qt's D-Bus library would bring a thread into the
/// process that handles passwords.
namespace Unlocks {

/// The option by which the program is such a process.
extern const QString option;

/// The number; absent when it cannot be asked, or is not told within a second.
std::optional<uint> byRoot();
/// Prints the number; the exit code.
int run();

} // namespace Unlocks
