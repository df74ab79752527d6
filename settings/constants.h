// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

#include <limits>

/// Names, paths and texts that the method shares with the rest of the device, and constants that several source files
/// use. A constant that only one file uses is in that file, unless another program relies on it.
namespace Constants {

/// The method's description for the daemon.
namespace Method {
extern const QString name;
extern const QString page;
extern const QString prePage;
extern const QString infoPage;
constexpr int types = 20; ///< The daemon's method-type bits 2 and 4.
} // namespace Method

/// Keys of the options, the policies and the settings file that the plugin shares with the client.
namespace Options {
extern const QString certs;
extern const QString maxAttempts;
extern const QString delayedDeletion;
extern const QString attempts;
extern const QString updatingCerts; ///< The only element of the certificate list during an update.
} // namespace Options

/// Keys of the data in an authentication request.
namespace Request {
extern const QString password;
extern const QString cert;
extern const QString pin;
} // namespace Request

/// The client's answers to a request.
namespace Answers {
extern const QString success;
extern const QString lock;
extern const QString remove;
extern const QString noUsb;
extern const QString connectionError;
extern const QString failed;
extern const QString badDefaultCert;
extern const QString unknownRequest;
} // namespace Answers

/// The link to the client.
namespace Link {
extern const QString directory; ///< Contains the socket.
extern const QString socketName;
extern const QString socketPath;
extern const QString address;
extern const QString connectionName;
extern const QString service;
extern const QString objectPath;
} // namespace Link

/// Files and directories.
namespace Paths {
extern const QString methods; ///< The daemon's directory of method settings. Ends in a slash.
extern const QString methodSettings; ///< %1 = methods, %2 = method name.
extern const QString systemLimit; ///< Stores the system's limit during a user's policy. Arguments as above.
extern const QString userOptions; ///< %1 = user id.
extern const QString manifest;
extern const QString shared;
extern const QString userSettings; ///< %1 = the client's shared directory, %2 = user id.
extern const QString packagedPolicy;
extern const QString currentPolicy;
extern const QString firstStartMarker; ///< In the user's home directory.
extern const QString homes; ///< Contains the home directories. Ends in a slash.
} // namespace Paths

/// The client's process.
namespace Process {
constexpr uint launchBudget = 11; ///< Launches until the next reset.
extern const QString launcher;
extern const QString homeVariable;
extern const QString sessionBusVariable;
extern const QString sessionBusAddress; ///< %1 = user id.
extern const char *const group;
constexpr const char *supplementaryGroups[] = {"inet"};
constexpr uint unknownOwner = std::numeric_limits<uint>::max() - 1; ///< No client runs as this user.
} // namespace Process

/// The sandbox's command line and its permission profiles.
namespace Sandbox {
extern const QString quiet;
extern const QString organizationTemplate;
extern const QString applicationTemplate;
extern const QString privateBin;
extern const QString whitelist;
extern const QString mkdir;
extern const QString ownUserBusName;
extern const QString talkSystemBusName;
extern const QString profile;
extern const QString noGui;
extern const QString packagedData;
extern const QString userData;
extern const QString userConfig;
extern const QString userCache;
extern const QString authService;
extern const QString permissions; ///< A directory. Ends in a slash.
extern const QString installedPermissions; ///< A directory. Ends in a slash.
extern const QString permissionSuffix;
extern const QString basePermission;
} // namespace Sandbox

/// The lock of a user who has no attempts left.
namespace Lockout {
extern const QString eventLevel;
extern const QString event;
extern const QString reason;
constexpr uint duration = std::numeric_limits<uint>::max(); ///< Until root unlocks the user.
} // namespace Lockout

/// The service that removes a user's data.
namespace Wiper {
extern const QString service;
extern const QString objectPath;
extern const QString interface;
extern const QString method;
} // namespace Wiper

} // namespace Constants
