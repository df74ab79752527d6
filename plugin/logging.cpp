// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/logging.h"

Q_LOGGING_CATEGORY(kavet, "authd.method.kavet", QtWarningMsg)
