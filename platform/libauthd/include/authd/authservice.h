// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/vocabulary.h>

/// Where the authentication service stands on the system bus. Its messages are named in LibAuthd::Vocabulary.
namespace LibAuthd {
namespace AuthService {

constexpr QLatin1String Service = LibAuthd::Vocabulary::word("qarv.AuthService");
constexpr QLatin1String ObjectPath = LibAuthd::Vocabulary::word("/qarv/AuthService");
constexpr QLatin1String Interface = LibAuthd::Vocabulary::word("qarv.AuthService");

} // namespace AuthService
} // namespace LibAuthd
