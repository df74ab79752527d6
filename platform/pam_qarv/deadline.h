// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>

/// A point in time that all waiting for others shares, on a clock that cannot be set. The time that a person takes does
/// not count: a Pause postpones the deadline.
class Deadline
{
public:
    explicit Deadline(unsigned int seconds);

    /// Microseconds left; 0 when the time is up.
    std::uint64_t left() const;

    /// Postpones the deadline by the lifetime of the object.
    class Pause
    {
    public:
        explicit Pause(Deadline &deadline);
        ~Pause();
        Pause(const Pause &) = delete;
        Pause &operator=(const Pause &) = delete;

    private:
        Deadline &m_deadline;
        const std::uint64_t m_begin;
    };

private:
    std::uint64_t m_end; ///< In microseconds of CLOCK_MONOTONIC.
};
