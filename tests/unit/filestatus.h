// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "support/testdevice.h"

#include <QFile>

#include <sys/stat.h>

/// The path in the encoding of system calls.
inline QByteArray encoded(const QString &path)
{
    return QFile::encodeName(path);
}

/// The status of the file at `path`, which must exist.
inline struct stat statusOf(const QString &path)
{
    struct stat status = {};
    if (lstat(encoded(path).constData(), &status) == -1)
        qFatal("No %s", qPrintable(path));
    return status;
}

/// All attributes of the file at `path` that root might change.
inline QString portrait(const QString &path)
{
    const struct stat status = statusOf(path);
    return QStringLiteral("%1 inode %2 mode %3 owner %4:%5 links %6 size %7 changed %8.%9 content %10")
        .arg(path)
        .arg(status.st_ino)
        .arg(status.st_mode, 0, 8)
        .arg(status.st_uid)
        .arg(status.st_gid)
        .arg(status.st_nlink)
        .arg(status.st_size)
        .arg(status.st_ctim.tv_sec)
        .arg(status.st_ctim.tv_nsec)
        .arg(S_ISREG(status.st_mode) ? QString::fromLatin1(TestDevice::readFile(path).toHex()) : QString());
}
