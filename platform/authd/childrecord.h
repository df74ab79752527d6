// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// The processes that the methods start, in the run directory, each by its process id and start time. A user can change
/// neither of the two, nor have root wait who reads them, as with what a process shows of its own memory.
namespace ChildRecord {

/// Kills the processes that the daemon before has left running, with all that they have started, and waits until they
/// are gone, but not for ever.
void endLeftovers();
/// Begins a record of this daemon's own. From now on each forked child writes itself down before it does anything else,
/// so that no moment is too early for the daemon to be killed. One that the daemon does not outlive until then ends.
void begin();

} // namespace ChildRecord
