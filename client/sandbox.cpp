// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/methodkavetprivate.h"

#include "plugin/logging.h"
#include "settings/constants.h"

#include <appmanifest/manifestentry.h>

#include <QFileInfo>

QStringList MethodKavetPrivate::getLaunchArgs()
{
    using namespace Constants;

    const QString orgName = child.orgName;
    const QString appName = child.appName;
    if (orgName.isEmpty()) {
        qCCritical(kavet) << "Empty OrganizationName= statement in desktop file";
        return {};
    }
    if (appName.isEmpty()) {
        qCCritical(kavet) << "Empty ApplicationName= statement in desktop file";
        return {};
    }
    if (child.exec.isEmpty()) {
        qCCritical(kavet) << "Empty ExecCmd= statement in desktop file.";
        return {};
    }
    const auto manifest = AppManifest::ManifestEntry::fromFilename(manifestPath.toStdString());
    if (!manifest) {
        qCCritical(kavet) << "Cannot open desktop file" << manifestPath;
        return {};
    }

    QStringList profiles;
    for (const std::string &permission : manifest->appPermissions()) {
        const QString fileName = QString::fromStdString(permission) + permissionSuffix;
        for (const QString &directory : {permissionsDirectory, installedPermissionsDirectory}) {
            if (QFileInfo::exists(directory + fileName)) {
                profiles << profileOption + directory + fileName;
                break;
            }
        }
    }
    profiles << profileOption + permissionsDirectory + basePermission + permissionSuffix;

    const QString applicationId = orgName + QLatin1Char('.') + appName;
    const QString applicationPath = orgName + QLatin1Char('/') + appName;

    // The launcher itself replaces ${HOME}. What follows the command is the client's.
    return QStringList{quietOption,
                       organizationTemplateOption + orgName,
                       applicationTemplateOption + appName,
                       privateBinOption + applicationId,
                       whitelistOption + packagedDataRoot + applicationId,
                       whitelistOption + userDataRoot + applicationId,
                       whitelistOption + userConfigRoot + applicationId,
                       whitelistOption + userCacheRoot + applicationId,
                       mkdirOption + userCacheRoot + applicationPath,
                       whitelistOption + userCacheRoot + applicationPath,
                       mkdirOption + userDataRoot + applicationPath,
                       whitelistOption + userDataRoot + applicationPath,
                       mkdirOption + userConfigRoot + applicationPath,
                       whitelistOption + userConfigRoot + applicationPath,
                       whitelistOption + sharedRoot + QLatin1Char('/') + applicationPath,
                       ownUserBusNameOption + applicationId,
                       talkSystemBusNameOption + authService}
           + profiles + QStringList{child.exec, noGuiOption};
}
