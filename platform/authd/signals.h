// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QStringList>

/// Handles the signals that end the daemon, and restarts the daemon in place.
namespace Signals {

/// Makes SIGTERM, SIGINT and SIGHUP end the event loop with `exitCode`. Returns false, with errno set, on failure. The
/// signals are not blocked, because programs that methods start would inherit that.
bool endEventLoop(int exitCode);
/// Replaces this process by a new daemon. Connections that Qt shares within a process, including the methods' own, do
/// not recover after the bus has been away. Returns only on failure, with errno set.
void startAnew(const QStringList &arguments);

} // namespace Signals
