// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QElapsedTimer>

#include <optional>

/// Lets through so many events a second, and after a pause so many at once.
class RateLimit
{
public:
    RateLimit(int perSecond, int burst);

    /// Whether another event may pass now; it counts as having passed.
    bool pass();

private:
    double m_perSecond;
    double m_burst;
    double m_left;
    QElapsedTimer m_since;
};

/// Keeps the lines of one kind in the log within a rate.
class LogLimit
{
public:
    LogLimit(int perSecond, int burst);

    /// Of one more event: how many have gone unlogged since the last that was logged; nothing when this one goes
    /// unlogged too.
    std::optional<int> pass();

private:
    RateLimit m_limit;
    int m_unlogged = 0;
};
