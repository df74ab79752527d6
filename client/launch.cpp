// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/methodkavetprivate.h"

#include "client/userfiles.h"
#include "client/usersettings.h"
#include "plugin/logging.h"
#include "plugin/methodkavet.h"
#include "settings/constants.h"

#include <authd/libauthd.h>

#include <QDir>
#include <QFileInfo>
#include <QProcessEnvironment>

#include <cerrno>
#include <utility>

#include <grp.h>

bool MethodKavetPrivate::launchChild()
{
    if (child.clientRunning)
        return true;
    if (launchBudget == 0)
        return false;
    --launchBudget;
    if (!child.tryToParseManifest())
        return false;
    if (child.sharedDirectory.isEmpty()) {
        qCCritical(kavet) << "Shared directory is not set";
        return false;
    }

    const QString userName = LibAuthd::userName(currentUid);
    if (userName.isNull()) {
        qCCritical(kavet) << "Cannot name for" << currentUid;
        return false;
    }
    const struct group *clientGroup = getgrnam(Constants::clientGroup);
    if (!clientGroup) {
        qCCritical(kavet) << "Cannot get GID of" << QString::fromLatin1(Constants::clientGroup);
        return false;
    }
    m_refusedUserFile = false;
    m_lookupWasSlow = false;
    child.uid = currentUid;
    child.gid = clientGroup->gr_gid;

    const QStringList arguments = getLaunchArgs();
    if (arguments.isEmpty() || child.uid == 0 || child.gid == 0)
        return false;
    if (!prepareEnvironment())
        return false;

    watcher.addPath(child.sharedDirectory);
    if (auto policy = policyToFollow(child.uid)) {
        takeLimit(std::move(*policy), child.uid);
        watchAnew(Constants::currentPolicyFile);
    } else {
        giveLimitBack(child.uid);
    }

    child.userConfigPath = Constants::userConfigName.arg(child.sharedDirectory, QString::number(currentUid));
    PinnedFile userFile(child.userConfigPath, child.uid, child.gid);
    if (!userFile.isUsable()) {
        const int error = errno;
        qCWarning(kavet) << __func__ << "Cannot set owner of" << child.userConfigPath << "to" << child.uid << child.gid
                         << error;
        return false;
    }
    // Written at the end of the function.
    UserSettings userSettings(std::move(userFile));
    userSettings.setValue(Constants::attempts, q->getOptionInternal(currentUid, Constants::attempts));
    watchAnew(child.userConfigPath);

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(Constants::homeVariable, Constants::homeRoot + userName);
    environment.insert(Constants::sessionBusVariable, Constants::sessionBusAddress.arg(currentUid));
    child.setProcessEnvironment(environment);
    // A process that is starting already is another launch's, and stays what it is.
    if (child.state() == QProcess::NotRunning)
        child.clientUid = currentUid;
    child.start(Constants::sandboxLauncher, arguments, QIODevice::ReadWrite);
    return true;
}

bool MethodKavetPrivate::prepareEnvironment()
{
    const auto pass = [this](const QString &directory) {
        const HandOver result = handOver(directory, child.uid, child.gid);
        if (result == HandOver::Replaced) {
            watcher.removePath(directory);
            watcher.addPath(directory);
            // What the former user does to files put aside must not look like a change of those in their place.
            watcher.removePath(Constants::currentPolicyFile);
        }
        return result;
    };

    if (pass(Constants::clientDirectory) == HandOver::Failed) {
        qCCritical(kavet) << "Cannot change owner of directory";
        return false;
    }

    const QStringList directories = {Constants::sharedRoot + QLatin1Char('/') + child.orgName + QLatin1Char('/')
                                     + child.appName};
    for (const QString &directory : directories) {
        if (!QDir().mkpath(directory)) {
            qCWarning(kavet) << "Cannot create directory";
            return false;
        }
        if (pass(directory) == HandOver::Failed) {
            qCCritical(kavet) << "Cannot change owner of directory.";
            return false;
        }
    }
    return true;
}
