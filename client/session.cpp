// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavetprivate.h"

#include "plugin/logging.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <QDir>
#include <QFileInfo>

#include <utility>

#include <pwd.h>

namespace {

bool firstStartFinished(const QString &homeDirectory)
{
    return PinnedFile(homeDirectory + QDir::separator() + Constants::Paths::firstStartMarker).exists();
}

} // namespace

void MethodKavetPrivate::handleUserSessionStarted(uint uid, bool manageClient)
{
    if (!child.tryToParseManifest())
        return;

    if (!child.sharedDirectory.isEmpty())
        watcher.addPath(child.sharedDirectory);
    if (QFileInfo::exists(Constants::Paths::packagedPolicy))
        syncPolicy(Constants::Paths::packagedPolicy, false);
    m_sessionUser = uid;
    const uint policyOwner = child.clientRunning ? child.uid : uid;
    if (auto policy = policyToFollow(policyOwner)) {
        watchAnew(Constants::Paths::currentPolicy);
        takeLimit(std::move(*policy), policyOwner);
    }
    if (!manageClient)
        return;

    if (child.clientRunning) {
        qCWarning(kavet) << __func__ << "Kavet client is already running, terminate...";
        killChild();
    }

    const struct passwd *entry = getpwuid(uid);
    if (!entry) {
        qCWarning(kavet) << "Cannot get name for" << uid;
        return;
    }
    const QString homeDirectory = QString::fromLatin1(entry->pw_dir);
    const QString userName = QString::fromLatin1(entry->pw_name);

    if (firstStartFinished(homeDirectory)) {
        if (q->getOptionInternal(uid, Constants::Options::delayedDeletion).toBool())
            removeUserDataInternal(uid, userName);
        return;
    }

    qCWarning(kavet) << "Delaying child launch for" << uid;
    child.uid = uid;
    child.homeDirectory = homeDirectory;
    watcher.addPath(homeDirectory);
}

void MethodKavetPrivate::handleUserSessionStopped(bool manageClient)
{
    if (!child.manifestExists)
        return;

    if (!child.userConfigPath.isEmpty())
        watcher.removePath(child.userConfigPath);
    if (!manageClient)
        return;

    if (!child.clientRunning)
        qCWarning(kavet) << __func__ << "Kavet client is not launched";
    if (child.state() == QProcess::NotRunning) {
        qCWarning(kavet) << __func__ << "Kavet client is not running";
        return;
    }
    child.terminate();
    child.clientUid = 0; // It must serve nobody any more, not even the same user's next session.
}

// The client serves nobody from here on. onChildFinished() handles its end.
void MethodKavetPrivate::killChild()
{
    child.clientUid = 0;
    closeLink();
    child.killForGood();
}

void MethodKavetPrivate::handleHomeDirectory(const QString &path)
{
    if (child.uid == 0) {
        qCWarning(kavet) << __func__ << "unexpected home directory change" << path;
        watcher.removePath(child.homeDirectory);
        return;
    }

    if (!firstStartFinished(child.homeDirectory))
        return;

    // launchChild() launches for the user being authenticated. Without one it fails, and makeAuth() launches later.
    if (!launchChild())
        qCWarning(kavet) << __func__ << "Couldn't start Kavet client";
    watcher.removePath(child.homeDirectory);
}
