// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "support/files.h"

#include <ctime>
#include <sys/syscall.h>
#include <sys/uio.h>

/// For how many milliseconds the main thread of a process sleeps if nothing happens: -1 for ever, 0 if it does not
/// sleep.
inline qint64 pollTimeout(qint64 pid)
{
    const QByteArrayList call = TestDevice::readFile(QStringLiteral("/proc/%1/syscall").arg(pid)).split(' ');
    const int number = call.constFirst().toInt();
    const quint64 timeout = call.value(3).toULongLong(nullptr, 0);
    if (number != SYS_ppoll)
        return number == SYS_poll ? int(timeout) : 0;
    timespec time = {};
    iovec ours = {&time, sizeof time};
    iovec theirs = {reinterpret_cast<void *>(timeout), sizeof time};
    if (timeout == 0)
        return -1;
    return process_vm_readv(pid_t(pid), &ours, 1, &theirs, 1, 0) == -1 ? 0
                                                                       : time.tv_sec * 1000 + time.tv_nsec / 1000000;
}
