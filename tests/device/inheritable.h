// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "support/files.h"

#include <QDir>
#include <QFileInfo>

#include <fcntl.h>
#include <unistd.h>

/// What a process would leave open to a program that it runs, besides the standard streams.
inline QStringList inheritable(const QString &process)
{
    QStringList files;
    const QDir directory(QStringLiteral("/proc/%1/fd").arg(process));
    const QStringList numbers = directory.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &number : numbers) {
        const QByteArray info = TestDevice::readFile(QStringLiteral("/proc/%1/fdinfo/%2").arg(process, number));
        const int flags = info.mid(info.indexOf("flags:") + 6).simplified().split(' ').first().toInt(nullptr, 8);
        // The directory itself is closed by now.
        if (!info.isEmpty() && number.toInt() > STDERR_FILENO && !(flags & O_CLOEXEC))
            files << QFileInfo(directory.filePath(number)).symLinkTarget().section(QLatin1Char('/'), -1);
    }
    return files;
}
