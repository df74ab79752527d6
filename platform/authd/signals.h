// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QStringList>

/// The signals that end the daemon, and its new start in its own place.
namespace Signals {

/// Has SIGTERM, SIGINT and SIGHUP end the event loop with `exitCode`; false, with errno set, when that fails. They are
/// not blocked, since the programs that methods start would inherit that.
bool endEventLoop(int exitCode);
/// Puts a fresh daemon into this one's place: what the Qt library shares in a process, the methods' own connection to
/// the bus among it, does not come back once the bus has been away. Returns only on failure, with errno set.
void startAnew(const QStringList &arguments);

} // namespace Signals
