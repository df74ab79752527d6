// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/vocabulary.h>

#include <limits>

/// The names of a user's states, as the service reports them.
namespace States {

constexpr QLatin1String Idle = LibAuthd::Vocabulary::word("idle");
constexpr QLatin1String Queued = LibAuthd::Vocabulary::word("queued");
constexpr QLatin1String Pending = LibAuthd::Vocabulary::word("pending");
constexpr QLatin1String Challenge = LibAuthd::Vocabulary::word("challenge");
constexpr QLatin1String Authenticated = LibAuthd::Vocabulary::word("authenticated");
constexpr QLatin1String Locked = LibAuthd::Vocabulary::word("locked");

// Keys of a state's details
constexpr QLatin1String Method = LibAuthd::Vocabulary::word("method");
constexpr QLatin1String Restarted = LibAuthd::Vocabulary::word("restarted");
constexpr QLatin1String Reason = LibAuthd::Vocabulary::word("reason");
constexpr QLatin1String Duration = LibAuthd::Vocabulary::word("duration");

/// The duration of a lock that lasts until root unlocks the user.
constexpr unsigned int UntilUnlocked = std::numeric_limits<unsigned int>::max();

} // namespace States

/// Why an attempt ended with neither success nor failure.
namespace Reasons {

constexpr QLatin1String Cancelled = LibAuthd::Vocabulary::word("cancelled");
constexpr QLatin1String Replaced = LibAuthd::Vocabulary::word("replaced");
constexpr QLatin1String TimedOut = LibAuthd::Vocabulary::word("timed-out");
constexpr QLatin1String CallerGone = LibAuthd::Vocabulary::word("caller-gone");
constexpr QLatin1String CutShort = LibAuthd::Vocabulary::word("cut-short");
constexpr QLatin1String Locked = LibAuthd::Vocabulary::word("locked");
constexpr QLatin1String SessionStopped = LibAuthd::Vocabulary::word("session-stopped");

} // namespace Reasons
