// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>

#include <cerrno>

#include <unistd.h>

/// A file descriptor that is closed with its owner; -1 when it holds none. Closing keeps errno.
class Descriptor
{
public:
    explicit Descriptor(int descriptor = -1)
        : m_descriptor(descriptor)
    {
    }
    ~Descriptor() { reset(); }

    int get() const { return m_descriptor; }
    bool isValid() const { return m_descriptor != -1; }
    /// Closes the descriptor held and takes over `descriptor`.
    void reset(int descriptor = -1)
    {
        const int error = errno;
        if (m_descriptor != -1)
            close(m_descriptor);
        m_descriptor = descriptor;
        errno = error;
    }

private:
    int m_descriptor;

    Q_DISABLE_COPY(Descriptor)
};

/// A path to what `descriptor` holds, wherever that is now. It works in this process only, and follows that one link.
inline QByteArray pathOf(int descriptor)
{
    return QByteArray("/proc/self/fd/").append(QByteArray::number(descriptor));
}
