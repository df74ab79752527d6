// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// What a user authenticates with.
enum class Credential { Password, Certificate };

/// How a request ends. Thrown where a request cannot continue.
struct Outcome
{
    int result; ///< The PAM result.
    std::string text; ///< A sentence for the person, safe to show; empty if there is nothing to say.
    std::string cause = {}; ///< Details for the log, safe to show.
};

/// Which PAM result each end of an attempt has. docs/pam.md contains the same tables.
namespace Outcomes {

/// The daemon is absent, not trustworthy, or silent.
Outcome unavailable(const std::string &cause);
/// The time is up.
Outcome timedOut();
/// A failed attempt with the method's result code.
Outcome failed(int code, Credential credential);
/// An attempt that the daemon gave up.
Outcome givenUp(std::string_view reason);
/// The daemon's method asks for something that this module cannot ask for.
Outcome otherInput();
/// A call that the daemon refused. `message` is the error's text.
Outcome refused(std::string_view error, std::string_view message);
/// A locked user. `duration` is in seconds.
Outcome locked(std::string_view reason, std::uint32_t duration);
/// A failed attempt that has locked the user.
Outcome lockedNow(std::string_view reason, std::uint32_t duration);

} // namespace Outcomes
