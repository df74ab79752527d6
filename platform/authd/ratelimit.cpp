// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "ratelimit.h"

#include <algorithm>
#include <utility>

RateLimit::RateLimit(int perSecond, int burst)
    : m_perSecond(perSecond)
    , m_burst(burst)
    , m_left(burst)
{
    m_since.start();
}

bool RateLimit::pass()
{
    constexpr double nanosecondsPerSecond = 1e9;
    const double seconds = double(m_since.nsecsElapsed()) / nanosecondsPerSecond;
    m_since.start();
    m_left = std::min(m_burst, m_left + seconds * m_perSecond);
    if (m_left < 1)
        return false;
    m_left -= 1;
    return true;
}

LogLimit::LogLimit(int perSecond, int burst)
    : m_limit(perSecond, burst)
{
}

std::optional<int> LogLimit::pass()
{
    if (m_limit.pass())
        return std::exchange(m_unlogged, 0);
    ++m_unlogged;
    return std::nullopt;
}
