// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "support/files.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QVector>

/// The disposable device as the plugin's tests see it: users, paths, and the scripted client in the place of the
/// sandbox launcher. Every test starts from reset().
namespace TestDevice {

constexpr uint alice = 1000; ///< Has finished the first-start wizard.
constexpr uint bob = 1001; ///< Likewise.
constexpr uint carol = 1002; ///< Has not.

const QString clientDirectory = QStringLiteral("/run/aux-auth/tarsk/kavet_client");
const QString socketPath = QStringLiteral("/run/aux-auth/tarsk/kavet_client/kavet.socket");
const QString sharedDirectory = QStringLiteral("/srv/shared/tarsk/kavet_client");
const QString currentPolicy = QStringLiteral("/srv/shared/tarsk/kavet_client/current.conf");
const QString packagedPolicy = QStringLiteral("/usr/share/tarsk.kavet_client/policy.conf");
const QString manifest = QStringLiteral("/usr/share/applications/tarsk.kavet_client.desktop");
const QString launcher = QStringLiteral("/usr/bin/firejail");

/// Whether this is the disposable device. reset() refuses to run anywhere else, since it removes what it finds.
bool isDevice();

/// Whether this is an ordinary user's device, which has 65536 user ids and no right to make device files.
bool isOrdinaryUsers();

/// Everything as on a device on which the method has never run: stock manifest, no policy files, no options, no client
/// directory, no shared directory, first-start markers of alice and bob only, and the scripted client in the
/// launcher's place with an empty script. Ends scripted clients that still run.
void reset();

/// Gives a file, directory or link itself to a user and group; false on failure.
bool setOwner(const QString &path, uint uid, uint gid);
/// Leaves a socket at `path` that nobody serves, and gives it to `uid`; false on failure.
bool leaveSocket(const QString &path, uint uid);
/// Leaves a symbolic link at `path` that belongs to `uid` and leads to a file; wasFollowed() tells whether anybody has
/// followed it since. False on failure.
bool leaveLink(const QString &path, uint uid);
bool wasFollowed(const QString &path);
/// Writes a manifest with these values; keys with a null value are left out.
bool writeManifest(const QString &organization, const QString &application, const QString &command,
                   const QStringList &permissions);
/// Writes a file in QSettings' native format with one key in the general group.
bool writeSetting(const QString &path, const QString &key, const QString &value);
/// The gid of a group; 0 when there is none.
uint groupId(const char *name);

/// What the scripted client does when it is launched next; see scriptedclient.cpp for the keys.
void setScript(const QJsonObject &script);
/// What each scripted client that has been launched since reset() was started with, in the order of launching: the
/// keys "pid", "descriptors" (those that were open), "arguments", "environment" (an object), "directory", "uids" and
/// "gids" (real, effective, saved), "groups".
QVector<QJsonObject> launches();
/// What scripted clients have been called with since reset(), in order: arrays of method name and arguments.
QVector<QJsonArray> calls();
/// For each of calls(), the user whose process was called.
QVector<uint> callees();

} // namespace TestDevice
