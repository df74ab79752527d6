// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "attemptcounter.h"

#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QSaveFile>
#include <QSettings>

#include <algorithm>
#include <limits>

#include <fcntl.h>
#include <unistd.h>

namespace {

const QString sharedFile = QStringLiteral("/srv/shared/tarsk/kavet_client/%1.conf");
const QString attemptsKey = QStringLiteral("attempts");

// Below the home directory and whatever the environment says, since it is this directory that the sandbox opens.
const QString ownFile = QStringLiteral(".local/share/tarsk/kavet_client/attempts");

/// More than any number has, in bytes.
constexpr int maximumSize = 32;

QString sharedPath()
{
    return sharedFile.arg(getuid());
}

QString ownPath()
{
    return QDir::home().filePath(ownFile);
}

int sharedCount()
{
    return QSettings(sharedPath(), QSettings::NativeFormat).value(attemptsKey).toInt();
}

int ownCount()
{
    QFile file(ownPath());
    if (!file.exists())
        return 0;
    bool isNumber = false;
    const int count = file.open(QIODevice::ReadOnly) ? file.read(maximumSize).trimmed().toInt(&isNumber) : 0;
    if (!isNumber)
        qWarning("%s holds no number of failed attempts; going by the shared one", qUtf8Printable(file.fileName()));
    return count;
}

/// Has the new name of a file, not only its content, reach the disk.
bool sync(const QString &directory)
{
    const int descriptor = open(QFile::encodeName(directory).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor == -1)
        return false;
    const bool synced = fsync(descriptor) == 0;
    close(descriptor);
    return synced;
}

bool storeOwn(int count)
{
    const QString directory = QFileInfo(ownPath()).path();
    QSaveFile file(ownPath());
    return QDir().mkpath(directory) && file.open(QIODevice::WriteOnly)
           && file.write(QByteArray::number(count) + '\n') != -1 && file.commit() && sync(directory);
}

bool storeShared(int count)
{
    QSettings settings(sharedPath(), QSettings::NativeFormat);
    settings.setValue(attemptsKey, count);
    settings.sync();
    return settings.status() == QSettings::NoError;
}

void store(int count)
{
    constexpr char message[] = "Cannot store the number of failed attempts in %s";
    if (!storeOwn(count))
        qWarning(message, qUtf8Printable(ownPath()));
    if (!storeShared(count))
        qWarning(message, qUtf8Printable(sharedPath()));
}

} // namespace

int AttemptCounter::count()
{
    return std::max({0, sharedCount(), ownCount()});
}

int AttemptCounter::increase()
{
    const int before = count();
    const int after = before == std::numeric_limits<int>::max() ? before : before + 1;
    store(after);
    return after;
}

void AttemptCounter::reset()
{
    if (count() != 0)
        store(0);
}
