// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "deadline.h"

#include <ctime>

namespace {

constexpr std::uint64_t MicrosecondsPerSecond = 1000000;
constexpr std::uint64_t NanosecondsPerMicrosecond = 1000;

std::uint64_t now()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * MicrosecondsPerSecond
           + static_cast<std::uint64_t>(time.tv_nsec) / NanosecondsPerMicrosecond;
}

} // namespace

Deadline::Deadline(unsigned int seconds)
    : m_end(now() + seconds * MicrosecondsPerSecond)
{
}

std::uint64_t Deadline::left() const
{
    const std::uint64_t time = now();
    return time < m_end ? m_end - time : 0;
}

Deadline::Pause::Pause(Deadline &deadline)
    : m_deadline(deadline)
    , m_begin(now())
{
}

Deadline::Pause::~Pause()
{
    m_deadline.m_end += now() - m_begin;
}
