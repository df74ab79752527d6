// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "settings/constants.h"

#include <authd/vocabulary.h>

// clazy:excludeall=non-pod-global-static

namespace Constants {

const QString methodName = QStringLiteral("kavet");
const QString methodsDirectory = LibAuthd::Vocabulary::MethodsDirectory;
const QString methodSettingsPath = QStringLiteral("%1/%2/current.conf");
const QString systemLimitPath = QStringLiteral("%1/%2/system-limit.conf");
const QString userConfigFilePath = QStringLiteral("/var/lib/authd/users/%1.conf");
const QString authPage = QStringLiteral("MethodPageKavet");
const QString prePage = QStringLiteral("PreMethodPageKavet");
const QString infoPage = QStringLiteral("KavetInfo");

const QString certs = QStringLiteral("certs");
const QString maxAttempts = QStringLiteral("max-attempts");
const QString delayedDeletion = QStringLiteral("delayed-deletion");
const QString attempts = QStringLiteral("attempts");
const QString updatingCertList = QStringLiteral(".");

const QString password = QStringLiteral("password");
const QString cert = QStringLiteral("cert");
const QString pin = QStringLiteral("pin");

const QString answerSuccess = QStringLiteral("success");
const QString answerLock = QStringLiteral("lock");
const QString answerRemove = QStringLiteral("remove");
const QString answerNoUsb = QStringLiteral("nousb");
const QString answerConnectionError = QStringLiteral("connerr");
const QString answerFailed = QStringLiteral("failed");
const QString answerBadDefaultCert = QStringLiteral("firstcererr");
const QString answerErrAuthType = QStringLiteral("errauthtype");

const QString clientDirectory = QStringLiteral("/run/aux-auth/tarsk/kavet_client");
const QString socketName = QStringLiteral("kavet.socket");
const QString filePath = QStringLiteral("%1/%2");
const QString peerAddress = QStringLiteral("unix:path=%1/%2").arg(clientDirectory, socketName);
const QString peerConnection = QStringLiteral("kavet_p2p_service");
const QString clientService = QStringLiteral("tarsk.kavet_client");
const QString clientObjectPath = QStringLiteral("/kavetauth");
const QString notConnected = QStringLiteral("No link to the client");
const QString cannotReachSocket = QStringLiteral("Failed to connect to socket %1: %2");
const QString certListTooLong = QStringLiteral("The list of certificates is too long");

const QString manifestPath = QStringLiteral("/usr/share/applications/tarsk.kavet_client.desktop");
const QString sharedRoot = QStringLiteral("/srv/shared");
const QString userConfigName = QStringLiteral("%1/%2.conf");
const QString packagedPolicyFile = QStringLiteral("/usr/share/tarsk.kavet_client/policy.conf");
const QString currentPolicyFile = QStringLiteral("/srv/shared/tarsk/kavet_client/current.conf");
const QString firstStartMarker = QStringLiteral(".qarv-startupwizard-usersession-done");

const QString sandboxLauncher = QStringLiteral("/usr/bin/firejail");
const QString homeVariable = QStringLiteral("HOME");
const QString homeRoot = QStringLiteral("/home/");
const QString sessionBusVariable = QStringLiteral("DBUS_SESSION_BUS_ADDRESS");
const QString sessionBusAddress = QStringLiteral("unix:path=/run/user/%1/dbus/user_bus_socket");
const char *const clientGroup = "auth-factor";

const QString quietOption = QStringLiteral("--quiet");
const QString organizationTemplateOption = QStringLiteral("--template=OrganizationName:");
const QString applicationTemplateOption = QStringLiteral("--template=ApplicationName:");
const QString privateBinOption = QStringLiteral("--private-bin=");
const QString whitelistOption = QStringLiteral("--whitelist=");
const QString mkdirOption = QStringLiteral("--mkdir=");
const QString ownUserBusNameOption = QStringLiteral("--dbus-user.own=");
const QString talkSystemBusNameOption = QStringLiteral("--dbus-system.talk=");
const QString profileOption = QStringLiteral("--profile=");
const QString noGuiOption = QStringLiteral("--no-gui");
const QString packagedDataRoot = QStringLiteral("/usr/share/");
const QString userDataRoot = QStringLiteral("${HOME}/.local/share/");
const QString userConfigRoot = QStringLiteral("${HOME}/.config/");
const QString userCacheRoot = QStringLiteral("${HOME}/.cache/");
const QString authService = QStringLiteral("qarv.AuthService");
const QString permissionsDirectory = QStringLiteral("/etc/varnet/permissions/");
const QString installedPermissionsDirectory = QStringLiteral("/var/lib/varnet/permissions/");
const QString permissionSuffix = QStringLiteral(".permission");
const QString basePermission = QStringLiteral("Base");

const QString lockoutEventLevel = QStringLiteral("WARN_LEVEL");
const QString lockoutEvent = QStringLiteral("devlock-attempts-expired");
const QString lockoutReason = QStringLiteral("kavet-max-attempts");

const QString wiperService = QStringLiteral("qarv.userdata.wiper");
const QString wiperObjectPath = QStringLiteral("/qarv/userdata/wiper");
const QString wiperInterface = wiperService;
const QString wiperMethod = QStringLiteral("ProcessTargetUser");
const QString noSystemBus = QStringLiteral("Not connected to the system bus");

} // namespace Constants
