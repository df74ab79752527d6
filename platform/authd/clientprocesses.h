// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QSet>

/// The processes that the methods started.
namespace ClientProcesses {

/// The users that the daemon's child processes run for.
QSet<uint> users();

} // namespace ClientProcesses
