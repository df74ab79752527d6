// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

/// The user id of a user given by login name or by user id. Throws a Failure when there is no such login name.
uint userId(const QString &user);

/// The login name of a user, or the user id in digits for one who has none.
QString displayName(uint uid);
