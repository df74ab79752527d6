// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// The count of failed attempts in the per-user file of the shared directory, where the daemon reads it too.
class AttemptCounter
{
public:
    /// The number of failed attempts; 0 when the file holds none.
    static int count();
    /// Counts one more failed attempt; the new count.
    static int increase();
    /// Starts again at 0.
    static void reset();
};
