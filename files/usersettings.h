// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "files/userfiles.h"

#include <QByteArray>
#include <QString>
#include <QVariant>

/// The keys outside any group in a user's native-format settings file. They read as with QSettings, except that a
/// serialized object, a list that contains one, and a list of more than a thousand strings count as missing. A file
/// that PinnedFile refuses or its owner may not read counts as empty and is never written.
class UserSettings
{
public:
    /// Reads the settings of the file `path`.
    explicit UserSettings(const QString &path);
    /// Reads the settings of `file`.
    explicit UserSettings(PinnedFile file);
    /// Writes the file if setValue() has changed it.
    ~UserSettings();

    /// The value of `key`; `defaultValue` if the key is missing.
    QVariant value(const QString &key, const QVariant &defaultValue) const;
    /// Sets `key`, which may contain only letters, digits and '-', to a string or a list of strings. All other keys
    /// keep their bytes. The destructor writes the file, unless nothing has changed.
    void setValue(const QString &key, const QVariant &value);

private:
    const PinnedFile m_file;
    QByteArray m_content;
    const bool m_readable;
    bool m_changed = false;

    Q_DISABLE_COPY(UserSettings)
};
