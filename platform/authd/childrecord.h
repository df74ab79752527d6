// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// Records the processes that the methods start in the run directory, each by process id and start time. Unlike the
/// memory-backed files in /proc, neither value is under the user's control, and reading it never blocks.
namespace ChildRecord {

/// Kills the processes that a previous daemon left behind, with all their descendants, and waits until they are gone or
/// a timeout expires.
void endLeftovers();
/// Starts this daemon's own record. From now on each forked child records itself before it does anything else, so the
/// daemon may be killed at any moment. A child that loses its parent before that exits.
void begin();

} // namespace ChildRecord
