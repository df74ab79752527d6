// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QtGlobal>

/// What precedes the milliseconds in the message of reportLongestWait().
constexpr char longestWait[] = "longest wait of others in milliseconds: ";

/// Reports how long an attack has made others wait. tools/bench reads it.
inline void reportLongestWait(double milliseconds)
{
    qInfo("%s%.3f", longestWait, milliseconds);
}
