// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

/// Every name, path and text that the method and the world outside it have agreed upon.
namespace Constants {

// The method
extern const QString methodName;
extern const QString methodsDirectory; ///< Ends in a slash.
extern const QString methodSettingsPath; ///< %1 = methodsDirectory, %2 = the method's name.
extern const QString systemLimitPath; ///< Likewise; of the limit that a user's policy stands in for.
extern const QString userConfigFilePath; ///< %1 = user id.
extern const QString authPage;
extern const QString prePage;
extern const QString infoPage;
constexpr int methodTypes = 20; ///< The daemon's method-type bits 2 and 4.
constexpr uint launchBudget = 11; ///< Launches of the client until the next reset.

// Options and settings keys
extern const QString certs;
extern const QString maxAttempts;
extern const QString delayedDeletion;
extern const QString attempts;
extern const QString updatingCertList; ///< The one element of a certificate list that is still being fetched.

// Authentication data
extern const QString password;
extern const QString cert;
extern const QString pin;

// The client's answers
extern const QString answerSuccess;
extern const QString answerLock;
extern const QString answerRemove;
extern const QString answerNoUsb;
extern const QString answerConnectionError;
extern const QString answerFailed;
extern const QString answerBadDefaultCert;
extern const QString answerErrAuthType;

// The link to the client
extern const QString clientDirectory;
extern const QString socketName;
extern const QString filePath; ///< %1 = directory, %2 = file name.
extern const QString peerAddress;
extern const QString peerConnection;
extern const QString clientService;
extern const QString clientObjectPath;
extern const QString notConnected;
extern const QString cannotReachSocket; ///< %1 = path, %2 = reason.
extern const QString certListTooLong;

// The client's files
extern const QString manifestPath;
extern const QString sharedRoot;
extern const QString userConfigName; ///< %1 = directory, %2 = user id.
extern const QString packagedPolicyFile;
extern const QString currentPolicyFile;
extern const QString firstStartMarker;
constexpr uint unknownOwner = 4294967294; ///< Stands for an owner that is not known; no client runs as it.

// The client's process
extern const QString sandboxLauncher;
extern const QString homeVariable;
extern const QString homeRoot; ///< Ends in a slash.
extern const QString sessionBusVariable;
extern const QString sessionBusAddress; ///< %1 = user id.
extern const char *const clientGroup;
constexpr const char *supplementaryGroups[] = {"inet"};

// The sandbox's command line
extern const QString quietOption;
extern const QString organizationTemplateOption;
extern const QString applicationTemplateOption;
extern const QString privateBinOption;
extern const QString whitelistOption;
extern const QString mkdirOption;
extern const QString ownUserBusNameOption;
extern const QString talkSystemBusNameOption;
extern const QString profileOption;
extern const QString noGuiOption;
extern const QString packagedDataRoot;
extern const QString userDataRoot;
extern const QString userConfigRoot;
extern const QString userCacheRoot;
extern const QString authService;
extern const QString permissionsDirectory; ///< Ends in a slash.
extern const QString installedPermissionsDirectory; ///< Ends in a slash.
extern const QString permissionSuffix;
extern const QString basePermission;

// Lockout
extern const QString lockoutEventLevel;
extern const QString lockoutEvent;
extern const QString lockoutReason;
constexpr uint lockoutDuration = 4294967295; ///< Until root unlocks the user.

// The user-data wiper
extern const QString wiperService;
extern const QString wiperObjectPath;
extern const QString wiperInterface;
extern const QString wiperMethod;
extern const QString noSystemBus;

} // namespace Constants
