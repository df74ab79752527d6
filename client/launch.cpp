// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavetprivate.h"

#include "files/userfiles.h"
#include "files/usersettings.h"
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
    const struct group *clientGroup = getgrnam(Constants::Process::group);
    if (!clientGroup) {
        qCCritical(kavet) << "Cannot get GID of" << QString::fromLatin1(Constants::Process::group);
        return false;
    }
    m_refusedUserFile = false;
    m_slowLookups = 0;
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
        watchAnew(Constants::Paths::currentPolicy);
    } else {
        giveLimitBack(child.uid);
    }

    child.userConfigPath = Constants::Paths::userSettings.arg(child.sharedDirectory, QString::number(currentUid));
    PinnedFile userFile(child.userConfigPath, child.uid, child.gid);
    if (!userFile.isUsable()) {
        const int error = errno;
        qCWarning(kavet) << __func__ << "Cannot set owner of" << child.userConfigPath << "to" << child.uid << child.gid
                         << error;
        return false;
    }
    // The destructor writes the file.
    UserSettings userSettings(std::move(userFile));
    userSettings.setValue(Constants::Options::attempts, q->getOptionInternal(currentUid, Constants::Options::attempts));
    watchAnew(child.userConfigPath);

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(Constants::Process::homeVariable, Constants::Paths::homes + userName);
    environment.insert(Constants::Process::sessionBusVariable, Constants::Process::sessionBusAddress.arg(currentUid));
    child.setProcessEnvironment(environment);
    // A process that is already starting belongs to an earlier launch.
    if (child.state() == QProcess::NotRunning)
        child.clientUid = currentUid;
    child.start(Constants::Process::launcher, arguments, QIODevice::ReadWrite);
    return true;
}

bool MethodKavetPrivate::prepareEnvironment()
{
    const auto pass = [this](const QString &directory) {
        const HandOver result = handOver(directory, child.uid, child.gid);
        if (result == HandOver::Replaced) {
            watcher.removePath(directory);
            watcher.addPath(directory);
            // Otherwise the former user's changes to the old file would be reported as changes of the new one.
            watcher.removePath(Constants::Paths::currentPolicy);
        }
        return result;
    };

    if (pass(Constants::Link::directory) == HandOver::Failed) {
        qCCritical(kavet) << "Cannot change owner of directory";
        return false;
    }

    const QStringList directories = {Constants::Paths::shared + QLatin1Char('/') + child.orgName + QLatin1Char('/')
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
