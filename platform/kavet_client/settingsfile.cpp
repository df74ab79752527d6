// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "settingsfile.h"

#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <cstdio>

namespace {

bool change(const QString &path, const QString &key, const QVariant &value, const char *encoding)
{
    QSettings settings(path, QSettings::NativeFormat);
    if (encoding)
        settings.setIniCodec(encoding);
    settings.setValue(key, value);
    settings.sync();
    return settings.status() == QSettings::NoError;
}

} // namespace

// Works on a copy: on a full disk QSettings replaces the file by an empty one and reports no error.
bool writeSetting(const QString &path, const QString &key, const QVariant &value, const char *encoding)
{
    const QString draft = path + QStringLiteral(".new");
    QFile::remove(draft);
    if (QFile::exists(path) && !QFile::copy(path, draft))
        return false;
    const bool written = change(draft, key, value, encoding) && QFileInfo(draft).size() > 0
                         && QFile::setPermissions(draft, QFileDevice::ReadOwner | QFileDevice::WriteOwner)
                         && std::rename(QFile::encodeName(draft).constData(), QFile::encodeName(path).constData()) == 0;
    if (!written)
        QFile::remove(draft);
    return written;
}
