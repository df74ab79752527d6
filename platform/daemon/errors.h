// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QLatin1String>

/// The service's errors as they go over the bus; what each means stands in the interface's description.
namespace Errors {

constexpr QLatin1String AccessDenied("org.freedesktop.DBus.Error.AccessDenied");
constexpr QLatin1String InvalidArgs("org.freedesktop.DBus.Error.InvalidArgs");
constexpr QLatin1String NoSuchUser("qarv.AuthService.Error.NoSuchUser");
constexpr QLatin1String NoSuchMethod("qarv.AuthService.Error.NoSuchMethod");
constexpr QLatin1String NoSuchOption("qarv.AuthService.Error.NoSuchOption");
constexpr QLatin1String UserLocked("qarv.AuthService.Error.UserLocked");
constexpr QLatin1String Busy("qarv.AuthService.Error.Busy");
constexpr QLatin1String NoAttempt("qarv.AuthService.Error.NoAttempt");
constexpr QLatin1String StoreFailed("qarv.AuthService.Error.StoreFailed");

} // namespace Errors
