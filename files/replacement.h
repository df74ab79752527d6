// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>

/// Atomically replaces the file open as `descriptor` with a new one that has `content` and the same mode. After a
/// failure or a crash the name leads to the old file or the new one, and either is complete. The calling thread must
/// have the file-system identity of the old file's owner and group, which the new file gets. False, with errno set, on
/// failure; ESTALE when the file is no longer in its directory.
bool replaceFile(int descriptor, const QByteArray &content);
