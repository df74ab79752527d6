// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "secret.h"

#include <QString>

/// Reads a new password from standard input: prompts twice without echo on a terminal, otherwise reads one line.
/// Returns an error message, or an empty string on success.
QString readNewPassword(SecretBytes &password);
