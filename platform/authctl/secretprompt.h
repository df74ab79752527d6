// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

#include <optional>

/// Asks on the terminal with `prompt` and reads a line without showing it; when standard input is no terminal, reads
/// its first line without asking. Absent when the input ends first or the person breaks off with Ctrl-C.
std::optional<QString> readSecret(const QString &prompt);
