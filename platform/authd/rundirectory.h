// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>

/// Where the daemon keeps what the next one has to know should it crash, and nobody after a restart of the machine.
/// Only root may read it.
namespace RunDirectory {

constexpr char Path[] = "/run/authd";
constexpr char LockFile[] = "/run/authd/lock";
constexpr char ChildrenFile[] = "/run/authd/children";
constexpr char SessionsFile[] = "/run/authd/sessions";
constexpr char UnsavedLocksFile[] = "/run/authd/locks.conf";

/// Makes the directory; false, with errno set, when it cannot be made or is somebody else's.
bool make();
/// Writes a file there whole or not at all; false, with a line in the log, when it cannot.
bool write(const char *path, const QByteArray &content);

} // namespace RunDirectory
