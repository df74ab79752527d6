// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// What one caller or user may take of the service, far above what honest ones need.
namespace Limits {

/// Attempts that a connection may have open.
constexpr int AttemptsPerConnection = 16;
/// Calls of a connection that may wait until the bus has told whose it is.
constexpr int WaitingCallsPerConnection = 16;
/// Subscribed connections of an ordinary user.
constexpr int SubscribersPerUser = 16;
/// Calls that an ordinary user may make in a second, and at once after a pause.
constexpr int CallsPerSecond = 200;
constexpr int CallBurst = 1000;
/// Attempts that an ordinary user may open in a second, and at once after a pause.
constexpr int AttemptsPerSecond = 5;
constexpr int AttemptBurst = 50;
/// Refusals of calls by an ordinary user that are logged in a second, and at once after a pause.
constexpr int RefusalsPerSecond = 5;
constexpr int RefusalBurst = 100;
/// Changes of one user's options, or of the method-wide ones, that are logged in a second, and at once after a pause.
constexpr int ChangesPerSecond = 5;
constexpr int ChangeBurst = 100;

} // namespace Limits
