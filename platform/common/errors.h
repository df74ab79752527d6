// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/vocabulary.h>

/// The D-Bus error names of the service. The D-Bus interface file describes each of them.
namespace Errors {

constexpr QLatin1String AccessDenied = LibAuthd::Vocabulary::word("org.freedesktop.DBus.Error.AccessDenied");
constexpr QLatin1String InvalidArgs = LibAuthd::Vocabulary::word("org.freedesktop.DBus.Error.InvalidArgs");
constexpr QLatin1String LimitsExceeded = LibAuthd::Vocabulary::word("org.freedesktop.DBus.Error.LimitsExceeded");
constexpr QLatin1String NoSuchUser = LibAuthd::Vocabulary::word("qarv.AuthService.Error.NoSuchUser");
constexpr QLatin1String NoSuchMethod = LibAuthd::Vocabulary::word("qarv.AuthService.Error.NoSuchMethod");
constexpr QLatin1String NoSuchOption = LibAuthd::Vocabulary::word("qarv.AuthService.Error.NoSuchOption");
constexpr QLatin1String UserLocked = LibAuthd::Vocabulary::word("qarv.AuthService.Error.UserLocked");
constexpr QLatin1String Busy = LibAuthd::Vocabulary::word("qarv.AuthService.Error.Busy");
constexpr QLatin1String NoAttempt = LibAuthd::Vocabulary::word("qarv.AuthService.Error.NoAttempt");
constexpr QLatin1String StoreFailed = LibAuthd::Vocabulary::word("qarv.AuthService.Error.StoreFailed");

} // namespace Errors
