// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "support/files.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QStringList>
#include <QTest>

#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <functional>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

/// Shared helpers of the platform libraries' tests.
namespace PlatformTest {

/// Exits outside the disposable device, because the tests remove files on the real paths.
inline void requireDevice()
{
    // Only in the device does the adapter replace the launcher.
    if (!QFileInfo::exists(QStringLiteral("/usr/bin/firejail.stock")))
        qFatal("This test changes the system it runs on. Run it in the disposable device: device/enter %s",
               qPrintable(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()));
}

/// Removes the file or the whole directory at `path`.
inline void removeAll(const QString &path)
{
    if (QFileInfo(path).isDir() && !QFileInfo(path).isSymLink())
        QDir(path).removeRecursively();
    else
        QFile::remove(path);
}

/// The mode bits of `path`, without following a link; -1 if there is no file.
inline int mode(const QString &path)
{
    struct stat status;
    return lstat(QFile::encodeName(path).constData(), &status) == 0 ? int(status.st_mode & 07777) : -1;
}

/// Runs `work` in a forked child and returns its result, 0 to 255; -1 if the child did not exit.
template <typename Work>
int inChild(Work work)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(work());
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

/// Forks a child that stops, to be traced, before it runs `work` and exits.
inline pid_t forkTraced(const std::function<void()> &work)
{
    const pid_t child = fork();
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(1);
        raise(SIGSTOP);
        work();
        syscall(SYS_exit_group, 0); // Where coverage is measured, _exit() would open more files.
    }
    return child;
}

/// Runs `work` in a forked child and calls `onCall` with the number and the arguments of each of its system calls.
/// Returns the child's wait status; -1 if it cannot be followed.
inline int trace(const std::function<void()> &work, const std::function<void(long, const std::uint64_t *)> &onCall)
{
    const pid_t child = forkTraced(work);
    int status = -1;
    while (child > 0 && waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
        ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD);
        __ptrace_syscall_info info = {};
        // ptrace takes the size in the address argument.
        const auto place = reinterpret_cast<void *>(sizeof info); // NOLINT(performance-no-int-to-ptr)
        if (ptrace(PTRACE_GET_SYSCALL_INFO, child, place, &info) > 0 && info.op == PTRACE_SYSCALL_INFO_ENTRY)
            onCall(long(info.entry.nr), info.entry.args);
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    }
    return status;
}

/// How many files `work` opens, in a forked child. Fails the test if a program that another thread starts meanwhile
/// would inherit one.
inline int opened(const std::function<void()> &work)
{
    int count = 0;
    const int status = trace(work, [&count](long number, const std::uint64_t *arguments) {
        if (number != SYS_openat)
            return;
        ++count;
        QVERIFY(arguments[2] & O_CLOEXEC);
    });
    return status == 0 ? count : -1;
}

/// Captures the messages of the category "authd.platform" for its lifetime. Only one may exist at a time. No message
/// reaches standard error.
class PlatformLog
{
public:
    PlatformLog()
    {
        current() = this;
        m_previous = qInstallMessageHandler(handle);
    }
    ~PlatformLog()
    {
        qInstallMessageHandler(m_previous);
        current() = nullptr;
    }

    /// The messages so far. Those of other levels than warning have the level as prefix.
    QStringList lines() const { return m_lines; }
    QString text() const { return m_lines.join(QLatin1Char('\n')); }
    void clear() { m_lines.clear(); }

private:
    Q_DISABLE_COPY(PlatformLog)

    static PlatformLog *&current()
    {
        static PlatformLog *log = nullptr;
        return log;
    }

    static void handle(QtMsgType level, const QMessageLogContext &context, const QString &text)
    {
        if (qstrcmp(context.category, "authd.platform") != 0)
            return current()->m_previous(level, context, text);
        current()->m_lines << (level == QtWarningMsg ? text : QStringLiteral("level %1: %2").arg(level).arg(text));
    }

    QtMessageHandler m_previous = nullptr;
    QStringList m_lines;
};

} // namespace PlatformTest
