// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QSet>

/// The processes that the methods have started.
namespace ClientProcesses {

/// The users for whom the daemon's child processes run.
QSet<uint> users();

} // namespace ClientProcesses
