// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "support/files.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QStringList>

#include <sys/stat.h>
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
