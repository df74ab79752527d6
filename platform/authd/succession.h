// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <chrono>

/// The daemon's place in the row of daemons on this machine: one runs at a time.
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

private:
    Succession(const Succession &) = delete;
    Succession &operator=(const Succession &) = delete;

    int m_lock = -1;
};
