// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QElapsedTimer>

#include <optional>

/// A token bucket: allows a number of events per second, and a burst after a pause.
class RateLimit
{
public:
    RateLimit(int perSecond, int burst);

    /// Whether another event may pass now. Counts it if so.
    bool pass();

private:
    double m_perSecond;
    double m_burst;
    double m_left;
    QElapsedTimer m_since;
};

/// Limits the rate of one kind of log line.
class LogLimit
{
public:
    LogLimit(int perSecond, int burst);

    /// Asks to log one more event. Returns nothing if the event must not be logged, otherwise the number of events that
    /// were not logged since the last one that was.
    std::optional<int> pass();

private:
    RateLimit m_limit;
    int m_unlogged = 0;
};
