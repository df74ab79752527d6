// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <authd/vocabulary.h>

/// The address of the authentication service on the system bus. LibAuthd::Vocabulary has the names of its messages.
namespace LibAuthd {
namespace AuthService {

constexpr QLatin1String Service = LibAuthd::Vocabulary::word("qarv.AuthService");
constexpr QLatin1String ObjectPath = LibAuthd::Vocabulary::word("/qarv/AuthService");
constexpr QLatin1String Interface = LibAuthd::Vocabulary::word("qarv.AuthService");

} // namespace AuthService
} // namespace LibAuthd
