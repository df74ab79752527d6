// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>

#include <cerrno>

#include <unistd.h>

/// Owns a file descriptor and closes it on destruction; -1 stands for none. Closing preserves errno.
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
    /// Closes the current descriptor and takes ownership of `descriptor`.
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

/// A path that leads to the open file `descriptor`, even after a rename. It is valid in this process only.
inline QByteArray pathOf(int descriptor)
{
    return QByteArray("/proc/self/fd/").append(QByteArray::number(descriptor));
}
