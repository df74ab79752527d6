// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QElapsedTimer>

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
