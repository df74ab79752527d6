// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>
#include <QVariant>

/// Sets a key in a settings file, which is made if there is none. The file is replaced as a whole, by one that only its
/// user can read; when that cannot be done, as on a full disk, it stays as it is, and the function returns false.
bool writeSetting(const QString &path, const QString &key, const QVariant &value);
