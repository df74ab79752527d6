// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// The count of failed attempts. It is stored twice: in the user's file in the shared directory, which the plugin reads
/// and sets at each launch, and in a file of the client's own, which is reset only by a success or when root unlocks
/// the user in the authentication service. The larger count applies.
class AttemptCounter
{
public:
    /// The number of failed attempts. A file that is missing or holds no number counts as 0.
    static int count();
    /// Counts a failed attempt and returns the new count. On return the count is on disk or, if neither file can be
    /// written, in this process's memory.
    static int increase();
    /// Resets the count to 0.
    static void reset();
};
