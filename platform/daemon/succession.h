// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <chrono>

/// The daemon's place in the row of daemons on this machine: one runs at a time, and it ends what the one before has
/// started and, killed, could not end itself.
///
/// What a daemon starts carries a mark of the daemon in its environment. The mark stands in the run directory, so the
/// next daemon knows it. A child that was forked but not executed yet, which waits forever for a parent that is gone,
/// does not carry it; but it has the lock's file open as no other process has.
class Succession
{
public:
    enum Result {
        /// No other daemon runs.
        Acquired,
        /// Another daemon runs, and did not end in time.
        Taken,
        /// The run directory cannot be used.
        Unavailable
    };

    /// How long a daemon may take to end after another one has been started.
    static constexpr std::chrono::seconds Patience{5};

    Succession() = default;
    ~Succession();

    /// Waits until no other daemon runs, no longer than Patience.
    Result acquire();
    /// Kills what the daemon before has left running, waits until it is gone, and marks what this one starts.
    void begin();

private:
    Succession(const Succession &) = delete;
    Succession &operator=(const Succession &) = delete;

    int m_lock = -1;
};
