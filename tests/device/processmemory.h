// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <limits>

#include <elf.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

/// Why a test cannot look into the daemon.
constexpr char noMemory[] = "An ordinary user's device cannot look into a process that must not be dumped";

/// What the writable memory of a process holds, one page after the other; null if it cannot be read. Pages that were
/// only set aside are left out: a sanitizer sets aside terabytes.
inline QByteArray processMemory(qint64 pid)
{
    constexpr quint64 inUse = 3ULL << 62; // in memory, or swapped
    static const qint64 pageSize = sysconf(_SC_PAGESIZE);
    const QString process = QStringLiteral("/proc/%1/").arg(pid);
    QFile maps(process + QStringLiteral("maps"));
    QFile pages(process + QStringLiteral("pagemap"));
    QFile memory(process + QStringLiteral("mem"));
    if (!maps.open(QIODevice::ReadOnly) || !pages.open(QIODevice::ReadOnly | QIODevice::Unbuffered)
        || !memory.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return {};
    QByteArray content("");
    const QList<QByteArray> lines = maps.readAll().split('\n');
    for (const QByteArray &line : lines) {
        // As "7f1c08000000-7f1c08021000 rw-p ..."
        const QList<QByteArray> range = line.left(line.indexOf(' ')).split('-');
        if (!line.contains(" rw") || range.size() != 2)
            continue;
        const qint64 begin = range.at(0).toLongLong(nullptr, 16);
        const qint64 size = range.at(1).toLongLong(nullptr, 16) - begin;
        // Only the sanitizer's own notes take as much.
        if (size > std::numeric_limits<int>::max() || !pages.seek(begin / pageSize * qint64(sizeof(quint64))))
            continue;
        const QByteArray entries = pages.read(size / pageSize * qint64(sizeof(quint64)));
        const auto *entry = reinterpret_cast<const quint64 *>(entries.constData());
        const qint64 count = entries.size() / qint64(sizeof(quint64));
        for (qint64 first = 0, end = 0; first < count; first = end + 1) {
            for (end = first; end < count && (entry[end] & inUse); ++end)
                ;
            if (end > first && memory.seek(begin + first * pageSize))
                content += memory.read((end - first) * pageSize);
        }
    }
    return content;
}

/// What the vector registers of a process's first thread hold; null if they cannot be read.
inline QByteArray vectorRegisters(pid_t pid)
{
    constexpr int enough = 16 * 1024;
    if (ptrace(PTRACE_SEIZE, pid, nullptr, nullptr) != 0)
        return {};
    QByteArray registers(enough, '\0');
    iovec content = {registers.data(), size_t(registers.size())};
    const bool isRead = ptrace(PTRACE_INTERRUPT, pid, nullptr, nullptr) == 0 && waitpid(pid, nullptr, __WALL) == pid
                        && (ptrace(PTRACE_GETREGSET, pid, NT_X86_XSTATE, &content) == 0
                            || ptrace(PTRACE_GETREGSET, pid, NT_PRFPREG, &content) == 0);
    ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
    return isRead ? registers.left(int(content.iov_len)) : QByteArray();
}
