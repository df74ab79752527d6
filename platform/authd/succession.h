// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <chrono>

/// A lock that lets only one daemon run at a time.
class Succession
{
public:
    enum Result {
        /// No other daemon runs.
        Acquired,
        /// Another daemon is still running after the timeout.
        Taken,
        /// The run directory cannot be used.
        Unavailable
    };

    /// How long to wait for a previous daemon to exit.
    static constexpr std::chrono::seconds ExitTimeout{5};

    Succession() = default;
    ~Succession();

    /// Waits until no other daemon runs, at most for ExitTimeout.
    Result acquire();

private:
    Succession(const Succession &) = delete;
    Succession &operator=(const Succession &) = delete;

    int m_lock = -1;
};
