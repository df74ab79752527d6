// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/methodkavetprivate.h"

#include "client/userfiles.h"
#include "plugin/logging.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <QFileInfo>

void MethodKavetPrivate::handleChildDirectoryChanged(const QString &path)
{
    if (path == Constants::clientDirectory)
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

    const QFileInfo socket(Constants::filePath.arg(path, Constants::socketName));
    if (!socket.exists()) {
        qCDebug(kavet) << __func__ << "kavet client socket removed";
        child.socketPresent = false;
        return false;
    }

    const uint owner = socket.ownerId();
    if (owner != child.uid || owner == Constants::unknownOwner) {
        qCDebug(kavet) << __func__ << "Wrong socket owner" << owner;
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

void MethodKavetPrivate::handleChildSharedDirectory(const QString &path)
{
    Q_UNUSED(path)
    // A file that has been replaced counts as watched until the watcher has told of the old one's end, which may come
    // after the directory's change; so it is given up first.
    const auto watchAgain = [this](const QString &file) {
        watcher.removePath(file);
        watcher.addPath(file);
    };

    if (child.uid != 0 && !child.userConfigPath.isEmpty() && QFileInfo::exists(child.userConfigPath)) {
        if (!PinnedFile(child.userConfigPath).changeOwner(child.uid, child.gid)) {
            qCWarning(kavet) << "Failed to change owner for" << child.userConfigPath << "to" << child.uid << child.gid;
        }
        watchAgain(child.userConfigPath);
        q->setOptionInternal(child.uid, Constants::attempts, getChildAttempts());
    }

    if (QFileInfo::exists(Constants::currentPolicyFile)) {
        watchAgain(Constants::currentPolicyFile);
        syncPolicy(Constants::currentPolicyFile, true);
    }
}

void MethodKavetPrivate::handleChildFileChanged(const QString &path)
{
    if (path == child.userConfigPath && child.uid != 0)
        q->setOptionInternal(child.uid, Constants::attempts, getChildAttempts());
    else if (path == Constants::currentPolicyFile)
        syncPolicy(Constants::currentPolicyFile, true);
}
