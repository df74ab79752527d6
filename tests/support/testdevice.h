// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "support/files.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <sys/types.h>

/// The disposable device of the plugin's tests: users, paths, and the scripted client in place of the sandbox launcher.
/// Every test starts with reset().
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

/// Whether this is the disposable device. reset() refuses to run elsewhere, because it removes files.
bool isDevice();

/// Whether an ordinary user runs the device. It then has only 65536 user ids and cannot create device files.
bool isOrdinaryUsers();

/// Resets the device to a state in which the method has never run: stock manifest, no policy files, options, client
/// directory or shared directory, first-start markers of alice and bob only, and the scripted client with an empty
/// script in place of the launcher. Kills running scripted clients.
void reset();

/// Changes the owner and group of a file, directory or link itself; false on failure.
bool setOwner(const QString &path, uint uid, uint gid);
/// Creates a socket at `path` on which nobody listens, owned by `uid`; false on failure.
bool leaveSocket(const QString &path, uint uid);
/// Creates a symbolic link to a file at `path`, owned by `uid`; false on failure. wasFollowed() returns whether any
/// process has followed it since.
bool leaveLink(const QString &path, uint uid);
bool wasFollowed(const QString &path);
/// Writes a manifest with these values; null values are left out.
bool writeManifest(const QString &organization, const QString &application, const QString &command,
                   const QStringList &permissions);
/// Writes a file in QSettings' native format with one key in the general group.
bool writeSetting(const QString &path, const QString &key, const QString &value);
/// The gid of a group; 0 if there is none.
uint groupId(const char *name);

/// Forks a process that calls `prepare` and then waits to be killed. Returns its process id as soon as `prepare` has
/// returned true, or -1 if that returns false.
pid_t idleProcess(const std::function<bool()> &prepare);

/// Sets the script of the next scripted client; see scriptedclient.cpp for the keys.
void setScript(const QJsonObject &script);
/// How each scripted client since reset() was launched, in order: the keys "pid", "descriptors" (the inherited ones),
/// "arguments", "environment" (an object), "directory", "uids" and "gids" (real, effective, saved), "groups".
QVector<QJsonObject> launches();
/// The calls to scripted clients since reset(), in order: arrays of method name and arguments.
QVector<QJsonArray> calls();
/// For each of calls(), the user that the called process runs as.
QVector<uint> callees();

} // namespace TestDevice
