// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <limits>

/// The authentication service's interface, as docs/protocol.md describes it. The headers that the daemon and authctl
/// share need Qt, so the names stand here again; a test compares them.
namespace Protocol {

constexpr char Service[] = "qarv.AuthService";
constexpr char ObjectPath[] = "/qarv/AuthService";
constexpr char Interface[] = "qarv.AuthService";

namespace Errors {
constexpr char AccessDenied[] = "org.freedesktop.DBus.Error.AccessDenied";
constexpr char InvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr char LimitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr char NoSuchUser[] = "qarv.AuthService.Error.NoSuchUser";
constexpr char NoSuchMethod[] = "qarv.AuthService.Error.NoSuchMethod";
constexpr char NoSuchOption[] = "qarv.AuthService.Error.NoSuchOption";
constexpr char UserLocked[] = "qarv.AuthService.Error.UserLocked";
constexpr char Busy[] = "qarv.AuthService.Error.Busy";
} // namespace Errors

namespace States {
constexpr char Queued[] = "queued";
constexpr char Pending[] = "pending";
constexpr char Locked[] = "locked";
// Keys of a state's details
constexpr char Restarted[] = "restarted";
constexpr char Reason[] = "reason";
constexpr char Duration[] = "duration";
constexpr char InputRequestType[] = "input-request-type";
/// The type of input that a method asks for before it starts the client.
constexpr int InputWithoutClient = 0;
/// The duration of a lock that lasts until root unlocks the user.
constexpr std::uint32_t UntilUnlocked = std::numeric_limits<std::uint32_t>::max();
} // namespace States

namespace Reasons {
constexpr char Cancelled[] = "cancelled";
constexpr char Replaced[] = "replaced";
constexpr char TimedOut[] = "timed-out";
constexpr char CutShort[] = "cut-short";
constexpr char Locked[] = "locked";
constexpr char SessionStopped[] = "session-stopped";
} // namespace Reasons

namespace Signals {
constexpr char Authenticated[] = "Authenticated";
constexpr char AuthenticationFailed[] = "AuthenticationFailed";
constexpr char AttemptGivenUp[] = "AttemptGivenUp";
constexpr char StateChanged[] = "StateChanged";
constexpr char MethodOptionChanged[] = "MethodOptionChanged";
} // namespace Signals

// Keys of an attempt's data
constexpr char Password[] = "password";
constexpr char Cert[] = "cert";
constexpr char Pin[] = "pin";

/// The option with the certificates of the user whose client runs, and the only entry of its value until the client has
/// listed them.
constexpr char CertsOption[] = "certs";
constexpr char CertsPlaceholder[] = ".";

} // namespace Protocol
