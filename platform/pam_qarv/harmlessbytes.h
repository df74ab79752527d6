// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>
#include <string_view>

/// Makes untrusted UTF-8 text safe to show on one line of a terminal or a log: replaces each character that a terminal
/// may interpret by its escape, such as "\u001b", and each byte that is not UTF-8 by "?".
std::string harmless(std::string_view text);
