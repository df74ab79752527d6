// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "attemptcounter.h"

#include "settingsfile.h"

#include <common/regularfile.h>

#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QSaveFile>
#include <QSettings>

#include <algorithm>
#include <cerrno>
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

/// The count that neither file takes, so that at least this process goes by it.
int unstored = 0;

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
    const std::optional<std::string> content = readRegularFile(ownPath().toStdString(), 0, maximumSize);
    if (!content && errno == ENOENT)
        return 0;
    bool isNumber = false;
    const int count = content ? QByteArray::fromStdString(*content).trimmed().toInt(&isNumber) : 0;
    if (!isNumber)
        qWarning("%s holds no number of failed attempts; going by the shared one", qUtf8Printable(ownPath()));
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

bool replaceOwn(const QByteArray &content)
{
    const QString directory = QFileInfo(ownPath()).path();
    QSaveFile file(ownPath());
    return QDir().mkpath(directory) && file.open(QIODevice::WriteOnly) && file.write(content) == content.size()
           && file.flush() // Whose failure commit() would not notice.
           && file.commit() && sync(directory);
}

/// Needs no room on the disk, unlike a new file.
bool overwriteOwn(const QByteArray &content)
{
    QFile file(ownPath());
    return QFileInfo(ownPath()).isFile()
           && file.open(QIODevice::ReadWrite | QIODevice::ExistingOnly | QIODevice::Unbuffered)
           && file.write(content) == content.size() && file.resize(content.size()) && fsync(file.handle()) == 0;
}

bool storeOwn(int count)
{
    const QByteArray content = QByteArray::number(count) + '\n';
    return replaceOwn(content) || overwriteOwn(content);
}

void store(int count)
{
    constexpr char message[] = "Cannot store the number of failed attempts in %s";
    const bool own = storeOwn(count);
    if (!own)
        qWarning(message, qUtf8Printable(ownPath()));
    const bool shared = writeSetting(sharedPath(), attemptsKey, count);
    if (!shared)
        qWarning(message, qUtf8Printable(sharedPath()));
    unstored = own || shared ? 0 : count;
}

} // namespace

int AttemptCounter::count()
{
    return std::max({0, sharedCount(), ownCount(), unstored});
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
