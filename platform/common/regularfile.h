// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

/// Reads all of the regular file `path`. `nofollow` is O_NOFOLLOW to reject a symbolic link, or 0 to follow it. The
/// function first pins the file with O_PATH, so a FIFO or a device in its place cannot block and is never opened.
///
/// Returns nothing on error, with errno set: EINVAL when the path is not a regular file, EFBIG when the file is larger
/// than `limit` bytes.
inline std::optional<std::string> readRegularFile(const std::string &path, int nofollow, std::size_t limit)
{
    struct Descriptor
    {
        explicit Descriptor(int descriptor)
            : fd(descriptor)
        {
        }
        ~Descriptor()
        {
            const int error = errno;
            if (fd >= 0)
                close(fd);
            errno = error;
        }
        Descriptor(const Descriptor &) = delete;
        Descriptor &operator=(const Descriptor &) = delete;
        const int fd;
    };

    if (path.find('\0') != std::string::npos) {
        errno = EINVAL;
        return std::nullopt;
    }
    const Descriptor pin(open(path.c_str(), O_PATH | O_CLOEXEC | nofollow));
    struct stat status;
    if (pin.fd < 0 || fstat(pin.fd, &status) != 0)
        return std::nullopt;
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return std::nullopt;
    }
    const Descriptor file(open(("/proc/self/fd/" + std::to_string(pin.fd)).c_str(), O_RDONLY | O_CLOEXEC));
    if (file.fd < 0)
        return std::nullopt;

    std::string content;
    char buffer[16384];
    for (;;) {
        const ssize_t count = read(file.fd, buffer, sizeof buffer);
        if (count == 0)
            return content;
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return std::nullopt;
        content.append(buffer, static_cast<std::size_t>(count));
        if (content.size() > limit) {
            errno = EFBIG;
            return std::nullopt;
        }
    }
}
