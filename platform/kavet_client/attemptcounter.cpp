// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "attemptcounter.h"

#include "regularfile.h"
#include "settingsfile.h"
#include "unlocks.h"

#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QSaveFile>
#include <QSettings>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>

#include <fcntl.h>
#include <unistd.h>

namespace {

const QString sharedFile = QStringLiteral("/srv/shared/tarsk/kavet_client/%1.conf");
const QString attemptsKey = QStringLiteral("attempts");

// Relative to the home directory, regardless of XDG variables, because the sandbox opens this directory.
const QString ownFile = QStringLiteral(".local/share/tarsk/kavet_client/attempts");

/// Larger than any valid content, in bytes.
constexpr int maximumSize = 32;

/// The count that could not be written to either file; it still applies in this process.
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

/// What the client's own file holds.
struct Own
{
    int count = 0;
    /// How often root had unlocked the user when the count was written; absent if that was unknown.
    std::optional<uint> unlocks;
};

Own readOwn()
{
    const std::optional<std::string> content = readRegularFile(ownPath().toStdString(), 0, maximumSize);
    if (!content && errno == ENOENT)
        return {};
    const QList<QByteArray> words = QByteArray::fromStdString(content.value_or(std::string())).simplified().split(' ');
    bool isNumber = false;
    Own own;
    own.count = words.value(0).toInt(&isNumber);
    if (!isNumber)
        qWarning("%s holds no number of failed attempts; going by the shared one", qUtf8Printable(ownPath()));
    const uint unlocks = words.value(1).toUInt(&isNumber);
    if (isNumber)
        own.unlocks = unlocks;
    return own;
}

/// Syncs the directory, so that a renamed file survives a crash.
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
           && file.flush() // commit() does not report a failed flush.
           && file.commit() && sync(directory);
}

/// Overwrites the file in place, which also works on a full disk.
bool overwriteOwn(const QByteArray &content)
{
    QFile file(ownPath());
    return QFileInfo(ownPath()).isFile() && file.open(QIODevice::ReadWrite | QIODevice::Unbuffered)
           && file.write(content) == content.size() && file.resize(content.size()) && fsync(file.handle()) == 0;
}

bool storeOwn(const Own &own)
{
    QByteArray content = QByteArray::number(own.count);
    if (own.unlocks)
        content += ' ' + QByteArray::number(*own.unlocks);
    content += '\n';
    return replaceOwn(content) || overwriteOwn(content);
}

void store(const Own &own)
{
    constexpr char message[] = "Cannot store the number of failed attempts in %s";
    const bool isOwnStored = storeOwn(own);
    if (!isOwnStored)
        qWarning(message, qUtf8Printable(ownPath()));
    const bool isSharedStored = writeSetting(sharedPath(), attemptsKey, own.count);
    if (!isSharedStored)
        qWarning(message, qUtf8Printable(sharedPath()));
    unstored = isOwnStored || isSharedStored ? 0 : own.count;
}

/// The largest of all counts.
Own largest()
{
    Own own = readOwn();
    own.count = std::max({0, sharedCount(), own.count, unstored});
    return own;
}

/// The largest count, reset if root has unlocked the user since it was written.
Own current()
{
    Own own = largest();
    const std::optional<uint> unlocks = Unlocks::byRoot();
    if (unlocks && own.unlocks && own.unlocks != unlocks && own.count != 0) {
        own = {0, unlocks};
        store(own);
    }
    if (unlocks)
        own.unlocks = unlocks;
    return own;
}

} // namespace

int AttemptCounter::count()
{
    const int count = largest().count;
    return count == 0 ? 0 : current().count;
}

int AttemptCounter::increase()
{
    Own own = current();
    if (own.count != std::numeric_limits<int>::max())
        ++own.count;
    store(own);
    return own.count;
}

void AttemptCounter::reset()
{
    const Own own = largest();
    if (own.count != 0)
        store({0, own.unlocks});
}
