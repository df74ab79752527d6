// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/vocabulary.h>

#include <limits>

/// The words in which the service speaks of a user's state.
namespace States {

constexpr QLatin1String Idle = LibAuthd::Vocabulary::word("idle");
constexpr QLatin1String Pending = LibAuthd::Vocabulary::word("pending");
constexpr QLatin1String Challenge = LibAuthd::Vocabulary::word("challenge");
constexpr QLatin1String Authenticated = LibAuthd::Vocabulary::word("authenticated");
constexpr QLatin1String Locked = LibAuthd::Vocabulary::word("locked");

// Details
constexpr QLatin1String Method = LibAuthd::Vocabulary::word("method");
constexpr QLatin1String Restarted = LibAuthd::Vocabulary::word("restarted");
constexpr QLatin1String Reason = LibAuthd::Vocabulary::word("reason");
constexpr QLatin1String Duration = LibAuthd::Vocabulary::word("duration");

/// The duration of a lock that only root ends.
constexpr unsigned int UntilUnlocked = std::numeric_limits<unsigned int>::max();

} // namespace States
