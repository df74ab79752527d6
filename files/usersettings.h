// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "files/userfiles.h"

#include <QByteArray>
#include <QString>
#include <QVariant>

/// The keys outside of any group in a user's file of native-format settings. They read as with QSettings, save that an
/// object, a list with one in it and a list of more than a thousand texts count as missing. A file that PinnedFile
/// refuses or its owner may not read is as good as empty, and is not written.
class UserSettings
{
public:
    /// Reads the settings of the file `path`.
    explicit UserSettings(const QString &path);
    /// Reads the settings of `file`.
    explicit UserSettings(PinnedFile file);
    /// Writes what setValue() has changed.
    ~UserSettings();

    /// The value of `key`; `defaultValue` when there is none.
    QVariant value(const QString &key, const QVariant &defaultValue) const;
    /// Sets `key`, which has no character but letters, digits and '-', as text or list of texts. Every other key keeps
    /// its bytes. The file is written when this object is destroyed, and not at all when nothing has changed.
    void setValue(const QString &key, const QVariant &value);

private:
    const PinnedFile m_file;
    QByteArray m_content;
    const bool m_readable;
    bool m_changed = false;

    Q_DISABLE_COPY(UserSettings)
};
