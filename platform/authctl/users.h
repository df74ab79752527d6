// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

/// The user id for a login name or a user id in digits. Throws a Failure when the login name does not exist.
uint userId(const QString &user);

/// The user's login name, or the user id in digits if the user has none.
QString displayName(uint uid);
