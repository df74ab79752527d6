// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "client/userfiles.h"

#include <QByteArray>
#include <QString>
#include <QVariant>

/// The keys outside of any group in a user's file of native-format settings. An honest file reads and writes as with
/// QSettings; one that PinnedFile refuses or its owner may not read is as good as empty, and is not written. Only the
/// line of the key that is asked for is ever interpreted or replaced, whatever else stands in the file.
class UserSettings
{
public:
    explicit UserSettings(const QString &path);
    /// Writes what setValue() has set.
    ~UserSettings();

    /// The value of `key`; `defaultValue` when there is none, or one that is no plain text or list of texts.
    QVariant value(const QString &key, const QVariant &defaultValue) const;
    /// Sets `key`; the file is written when this object is destroyed.
    void setValue(const QString &key, const QVariant &value);

private:
    const PinnedFile m_file;
    QByteArray m_content;
    const bool m_readable;
    bool m_changed = false;

    Q_DISABLE_COPY(UserSettings)
};
