// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// The count of failed attempts. It is kept twice: in the per-user file of the shared directory, which the plugin reads
/// and sets at each launch, and in a file of the client's own, which nothing but a success and root's unlocking
/// the user in the authentication service set back. The larger counts.
class AttemptCounter
{
public:
    /// The number of failed attempts. A file that is missing or holds no number counts as 0.
    static int count();
    /// Counts one more failed attempt; the new count. When the function returns it is on the disk, or, when neither
    /// file can be written, in this process's memory.
    static int increase();
    /// Starts again at 0.
    static void reset();
};
