// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <ctime>
#include <sys/stat.h>
#include <tuple>

using FileStamp = std::tuple<dev_t, ino_t, off_t, time_t, long, time_t, long, time_t, long>;

/// Changes whenever the content of the file changes. Most kernels set a file's times by the ticks of a clock. So if the
/// file has just changed, another change may not show, and no two stamps are equal.
inline FileStamp fileStamp(const char *path)
{
    constexpr long long longestTick = 20'000'000; // nanoseconds, with a margin
    constexpr long long second = 1'000'000'000;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    struct stat status = {};
    if (stat(path, &status) != 0)
        return {};
    const timespec changed = status.st_ctim;
    if ((now.tv_sec - changed.tv_sec) * second + now.tv_nsec - changed.tv_nsec > longestTick)
        now = {};
    return {
        status.st_dev,   status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec, changed.tv_sec,
        changed.tv_nsec, now.tv_sec,    now.tv_nsec};
}
