// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>
#include <QVariant>

/// The encoding of settings files, which is that of editors. QSettings would take them for Latin-1.
constexpr char settingsEncoding[] = "UTF-8";

/// Sets a key in a settings file, creating the file if necessary. Replaces the file as a whole, readable by its user
/// alone. Returns false and leaves the file unchanged on failure, such as a full disk.
bool writeSetting(const QString &path, const QString &key, const QVariant &value);
