// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "settings/constants.h"

// clazy:excludeall=non-pod-global-static

namespace Constants {

namespace Method {
const QString name = QStringLiteral("kavet");
const QString page = QStringLiteral("MethodPageKavet");
const QString prePage = QStringLiteral("PreMethodPageKavet");
const QString infoPage = QStringLiteral("KavetInfo");
} // namespace Method

namespace Options {
const QString certs = QStringLiteral("certs");
const QString maxAttempts = QStringLiteral("max-attempts");
const QString delayedDeletion = QStringLiteral("delayed-deletion");
const QString attempts = QStringLiteral("attempts");
const QString updatingCerts = QStringLiteral(".");
} // namespace Options

namespace Request {
const QString password = QStringLiteral("password");
const QString cert = QStringLiteral("cert");
const QString pin = QStringLiteral("pin");
} // namespace Request

namespace Answers {
const QString success = QStringLiteral("success");
const QString lock = QStringLiteral("lock");
const QString remove = QStringLiteral("remove");
const QString noUsb = QStringLiteral("nousb");
const QString connectionError = QStringLiteral("connerr");
const QString failed = QStringLiteral("failed");
const QString badDefaultCert = QStringLiteral("firstcererr");
const QString unknownRequest = QStringLiteral("errauthtype");
} // namespace Answers

namespace Link {
const QString directory = QStringLiteral("/run/aux-auth/tarsk/kavet_client");
const QString socketName = QStringLiteral("kavet.socket");
const QString socketPath = directory + QLatin1Char('/') + socketName;
const QString address = QStringLiteral("unix:path=") + socketPath;
const QString connectionName = QStringLiteral("kavet_p2p_service");
const QString service = QStringLiteral("tarsk.kavet_client");
const QString objectPath = QStringLiteral("/kavetauth");
} // namespace Link

namespace Paths {
const QString methods = QStringLiteral("/var/lib/authd/methods/");
const QString methodSettings = QStringLiteral("%1/%2/current.conf");
const QString systemLimit = QStringLiteral("%1/%2/system-limit.conf");
const QString userOptions = QStringLiteral("/var/lib/authd/users/%1.conf");
const QString manifest = QStringLiteral("/usr/share/applications/tarsk.kavet_client.desktop");
const QString shared = QStringLiteral("/srv/shared");
const QString userSettings = QStringLiteral("%1/%2.conf");
const QString packagedPolicy = QStringLiteral("/usr/share/tarsk.kavet_client/policy.conf");
const QString currentPolicy = QStringLiteral("/srv/shared/tarsk/kavet_client/current.conf");
const QString firstStartMarker = QStringLiteral(".qarv-startupwizard-usersession-done");
const QString homes = QStringLiteral("/home/");
} // namespace Paths

namespace Process {
const QString launcher = QStringLiteral("/usr/bin/firejail");
const QString homeVariable = QStringLiteral("HOME");
const QString sessionBusVariable = QStringLiteral("DBUS_SESSION_BUS_ADDRESS");
const QString sessionBusAddress = QStringLiteral("unix:path=/run/user/%1/dbus/user_bus_socket");
const char *const group = "auth-factor";
} // namespace Process

namespace Sandbox {
const QString quiet = QStringLiteral("--quiet");
const QString organizationTemplate = QStringLiteral("--template=OrganizationName:");
const QString applicationTemplate = QStringLiteral("--template=ApplicationName:");
const QString privateBin = QStringLiteral("--private-bin=");
const QString whitelist = QStringLiteral("--whitelist=");
const QString mkdir = QStringLiteral("--mkdir=");
const QString ownUserBusName = QStringLiteral("--dbus-user.own=");
const QString talkSystemBusName = QStringLiteral("--dbus-system.talk=");
const QString profile = QStringLiteral("--profile=");
const QString noGui = QStringLiteral("--no-gui");
const QString packagedData = QStringLiteral("/usr/share/");
const QString userData = QStringLiteral("${HOME}/.local/share/");
const QString userConfig = QStringLiteral("${HOME}/.config/");
const QString userCache = QStringLiteral("${HOME}/.cache/");
const QString authService = QStringLiteral("qarv.AuthService");
const QString permissions = QStringLiteral("/etc/varnet/permissions/");
const QString installedPermissions = QStringLiteral("/var/lib/varnet/permissions/");
const QString permissionSuffix = QStringLiteral(".permission");
const QString basePermission = QStringLiteral("Base");
} // namespace Sandbox

namespace Lockout {
const QString eventLevel = QStringLiteral("WARN_LEVEL");
const QString event = QStringLiteral("devlock-attempts-expired");
const QString reason = QStringLiteral("kavet-max-attempts");
} // namespace Lockout

namespace Wiper {
const QString service = QStringLiteral("qarv.userdata.wiper");
const QString objectPath = QStringLiteral("/qarv/userdata/wiper");
const QString interface = service;
const QString method = QStringLiteral("ProcessTargetUser");
} // namespace Wiper

} // namespace Constants
