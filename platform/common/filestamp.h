// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <sys/stat.h>
#include <tuple>

using FileStamp = std::tuple<dev_t, ino_t, off_t, time_t, long, time_t, long>;

/// Changes whenever the content of the file changes.
inline FileStamp fileStamp(const char *path)
{
    struct stat status = {};
    if (stat(path, &status) != 0)
        return {};
    return {status.st_dev,          status.st_ino,         status.st_size,        status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}
