// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// Limits per caller or user, far above what legitimate ones need.
namespace Limits {

/// Open attempts per connection.
constexpr int AttemptsPerConnection = 16;
/// Calls per connection that may wait until the bus reports the connection's owner.
constexpr int WaitingCallsPerConnection = 16;
/// Subscribed connections per ordinary user.
constexpr int SubscribersPerUser = 16;
/// Calls per second of an ordinary user, and the burst after a pause.
constexpr int CallsPerSecond = 200;
constexpr int CallBurst = 1000;
/// Attempts that an ordinary user may open per second, and the burst after a pause.
constexpr int AttemptsPerSecond = 5;
constexpr int AttemptBurst = 50;
/// Logged refusals per second of an ordinary user's calls, and the burst after a pause.
constexpr int RefusalsPerSecond = 5;
constexpr int RefusalBurst = 100;
/// Logged changes per second of one user's options, or of the method-wide ones, and the burst after a pause.
constexpr int ChangesPerSecond = 5;
constexpr int ChangeBurst = 100;

} // namespace Limits
