// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

/// The client's own program, which it also starts as its helpers.
namespace OwnProgram {

inline const QString path = QStringLiteral("/proc/self/exe");
/// Stands before the option that says which helper to be.
inline const QString optionPrefix = QStringLiteral("--");

} // namespace OwnProgram
