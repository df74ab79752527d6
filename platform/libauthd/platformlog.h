// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QLoggingCategory>

/// The platform library's own log category: "authd.platform", warnings and above by default.
Q_DECLARE_LOGGING_CATEGORY(authdPlatform)
