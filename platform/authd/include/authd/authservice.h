// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QLatin1String>

/// Where the authentication service stands on the system bus. Its messages are named in LibAuthd::Vocabulary.
namespace LibAuthd {
namespace AuthService {

constexpr QLatin1String Service("qarv.AuthService");
constexpr QLatin1String ObjectPath("/qarv/AuthService");
constexpr QLatin1String Interface("qarv.AuthService");

} // namespace AuthService
} // namespace LibAuthd
