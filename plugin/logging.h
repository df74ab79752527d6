// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QLoggingCategory>

/// The plugin's one logging category, "authd.method.kavet": warnings and worse, unless the system says otherwise.
Q_DECLARE_LOGGING_CATEGORY(kavet)
