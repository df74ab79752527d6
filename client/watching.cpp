// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavetprivate.h"

#include "files/userfiles.h"
#include "plugin/logging.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <QFile>

#include <utility>

#include <ctime>

#include <sys/stat.h>

namespace {

constexpr qint64 maximumLookup = 2000000; ///< Nanoseconds of CPU time that looking up one path may take.
constexpr int maximumSlowLookups = 3; ///< Per launch. Interrupts can make a few slow.

/// The CPU time that this thread has used, in nanoseconds.
qint64 timeWorked()
{
    timespec worked = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &worked);
    return qint64(worked.tv_sec) * 1000000000 + worked.tv_nsec;
}

} // namespace

void MethodKavetPrivate::handleChildDirectoryChanged(const QString &path)
{
    if (path == Constants::Link::directory)
        handleChildSocket(path);
    else if (path == child.sharedDirectory)
        handleChildSharedDirectory(path);
    else if (path == child.homeDirectory)
        handleHomeDirectory(path);
}

bool MethodKavetPrivate::handleChildSocket(const QString &path)
{
    if (!child.clientRunning)
        return false;

    // lstat(): a symbolic link must not pass for the socket that it leads to.
    struct stat socket = {};
    const QString socketPath = path + QLatin1Char('/') + Constants::Link::socketName;
    if (lstat(QFile::encodeName(socketPath).constData(), &socket) == -1) {
        qCDebug(kavet) << __func__ << "kavet client socket removed";
        child.socketPresent = false;
        return false;
    }
    const uint owner = socket.st_uid;
    if (owner != child.uid || owner == Constants::Process::unknownOwner) {
        qCDebug(kavet) << __func__ << "Wrong socket owner" << owner;
        return false;
    }
    if (!S_ISSOCK(socket.st_mode)) {
        qCDebug(kavet) << __func__ << "Not a socket";
        return false;
    }
    if (child.socketPresent)
        return false;

    qCDebug(kavet) << __func__ << "kavet client socket appeared";
    child.socketPresent = true;
    if (currentUid == 0)
        return true;

    clientStage = MustConnect;
    makeAuth();
    return true;
}

// QFileSystemWatcher still counts a replaced file as watched until it reports the removal, and for a link it never
// does. It would also watch a directory in the file's place in addition to the file. Remove the path first.
//
// The watcher follows links, and a chain of long links takes tens of milliseconds each time. So only regular files are
// added. A user can still swap a file for such a chain between the check and addPath(). If that happens repeatedly,
// stop watching files until the next launch.
void MethodKavetPrivate::watchAnew(const QString &path)
{
    watcher.removePath(path);
    if (m_slowLookups == maximumSlowLookups || !PinnedFile(path).isUsable())
        return;
    const qint64 begin = timeWorked();
    watcher.addPath(path);
    if (timeWorked() - begin > maximumLookup && ++m_slowLookups == maximumSlowLookups) {
        watcher.removePath(path);
        qCWarning(kavet) << "Finding" << path << "takes too long; files are not watched until the next launch";
    }
}

void MethodKavetPrivate::handleChildSharedDirectory(const QString &path)
{
    Q_UNUSED(path)
    const PinnedFile userFile(child.userConfigPath);
    if (child.uid != 0 && userFile.exists()) {
        // Warn once per launch: otherwise the user could fill the log by touching the file.
        const uint user = userOfFile();
        if (!userFile.changeGroup(user, child.gid) && !m_refusedUserFile) {
            m_refusedUserFile = true;
            qCWarning(kavet) << "Failed to change owner for" << child.userConfigPath << "to" << user << child.gid;
        }
        watchAnew(child.userConfigPath);
        q->setOptionInternal(user, Constants::Options::attempts, getChildAttempts());
    }

    const uint owner = policyUser();
    if (auto policy = policyToFollow(owner)) {
        watchAnew(Constants::Paths::currentPolicy);
        takeLimit(std::move(*policy), owner);
    }
}

void MethodKavetPrivate::handleChildFileChanged(const QString &path)
{
    if (path == child.userConfigPath && child.uid != 0) {
        q->setOptionInternal(userOfFile(), Constants::Options::attempts, getChildAttempts());
    } else if (path == Constants::Paths::currentPolicy) {
        // A removed policy sets no limit; another user's policy changes nothing.
        const uint user = policyUser();
        if (!PinnedFile(path).exists())
            dropLimit();
        else if (auto policy = currentPolicyOf(user))
            takeLimit(std::move(*policy), user);
    }
}
