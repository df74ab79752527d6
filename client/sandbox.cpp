// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "plugin/methodkavetprivate.h"

#include "plugin/logging.h"
#include "settings/constants.h"

#include <appmanifest/manifestentry.h>

#include <QFileInfo>

QStringList MethodKavetPrivate::getLaunchArgs()
{
    using namespace Constants::Sandbox;

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
    const auto manifest = AppManifest::ManifestEntry::fromFilename(Constants::Paths::manifest.toStdString());
    if (!manifest) {
        qCCritical(kavet) << "Cannot open desktop file" << Constants::Paths::manifest;
        return {};
    }

    QStringList profiles;
    for (const std::string &permission : manifest->appPermissions()) {
        const QString fileName = QString::fromStdString(permission) + permissionSuffix;
        for (const QString &directory : {permissions, installedPermissions}) {
            if (QFileInfo::exists(directory + fileName)) {
                profiles << profile + directory + fileName;
                break;
            }
        }
    }
    profiles << profile + permissions + basePermission + permissionSuffix;

    const QString applicationId = orgName + QLatin1Char('.') + appName;
    const QString applicationPath = orgName + QLatin1Char('/') + appName;

    // The launcher expands ${HOME}. The arguments after the command are the client's own.
    return QStringList{quiet,
                       organizationTemplate + orgName,
                       applicationTemplate + appName,
                       privateBin + applicationId,
                       whitelist + packagedData + applicationId,
                       whitelist + userData + applicationId,
                       whitelist + userConfig + applicationId,
                       whitelist + userCache + applicationId,
                       mkdir + userCache + applicationPath,
                       whitelist + userCache + applicationPath,
                       mkdir + userData + applicationPath,
                       whitelist + userData + applicationPath,
                       mkdir + userConfig + applicationPath,
                       whitelist + userConfig + applicationPath,
                       whitelist + Constants::Paths::shared + QLatin1Char('/') + applicationPath,
                       ownUserBusName + applicationId,
                       talkSystemBusName + authService}
           + profiles + QStringList{child.exec, noGui};
}
