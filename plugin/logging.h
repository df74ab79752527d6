// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QLoggingCategory>

/// The plugin's only logging category, "authd.method.kavet". It logs warnings and worse unless the system's logging
/// rules change that.
Q_DECLARE_LOGGING_CATEGORY(kavet)
