// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>
#include <QVariant>

/// Sets a key in a settings file, creating the file if necessary. Replaces the file as a whole, readable by its user
/// alone. Returns false and leaves the file unchanged on failure, such as a full disk. `encoding` is the file's; by
/// default it is that of QSettings, Latin-1.
bool writeSetting(const QString &path, const QString &key, const QVariant &value, const char *encoding = nullptr);
