// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>

/// Puts a new file with `content` in the place of the file behind `descriptor`, with its mode. Whatever fails or is
/// interrupted, the name leads to the old file or to the new one, and each is whole. The thread must have taken the old
/// file's owner and group as its file-system identity, so that the new one is theirs too. False, with errno set, on
/// failure; ESTALE when the file has gone from its directory.
bool replaceFile(int descriptor, const QByteArray &content);
