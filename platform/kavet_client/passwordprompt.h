// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "secret.h"

#include <QString>

/// Reads a new password from standard input: asks for it twice without echo where that is a terminal, else takes one
/// line. Returns what went wrong, or an empty string.
QString readNewPassword(SecretBytes &password);
