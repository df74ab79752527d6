// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>

#include <cstddef>

/// The run directory: state that survives a crash of the daemon but not a reboot. Only root may read it.
namespace RunDirectory {

constexpr char Path[] = "/run/authd";
constexpr char LockFile[] = "/run/authd/lock";
constexpr char ChildrenFile[] = "/run/authd/children";
constexpr char SessionsFile[] = "/run/authd/sessions";
constexpr char UnsavedLocksFile[] = "/run/authd/locks.conf";
/// The limit for reading a file, in bytes.
constexpr std::size_t SizeLimit = std::size_t(1024) * 1024;

/// Creates the directory. Returns false, with errno set, when that fails or the directory belongs to somebody else.
bool make();
/// Replaces a file in the directory atomically. Returns false, with a log entry, on failure.
bool write(const char *path, const QByteArray &content);

} // namespace RunDirectory
