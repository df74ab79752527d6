// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QLatin1String>

#include <limits>

/// The words in which the service speaks of a user's state.
namespace States {

constexpr QLatin1String Idle("idle");
constexpr QLatin1String Pending("pending");
constexpr QLatin1String Challenge("challenge");
constexpr QLatin1String Authenticated("authenticated");
constexpr QLatin1String Locked("locked");

// Details
constexpr QLatin1String Method("method");
constexpr QLatin1String Restarted("restarted");
constexpr QLatin1String Reason("reason");
constexpr QLatin1String Duration("duration");

/// The duration of a lock that only root ends.
constexpr unsigned int UntilUnlocked = std::numeric_limits<unsigned int>::max();

} // namespace States
