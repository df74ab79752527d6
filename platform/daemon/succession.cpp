// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "succession.h"

#include "common/regularfile.h"
#include "log.h"
#include "rundirectory.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QSet>
#include <QThread>
#include <QUuid>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char Variable[] = "AUTHD_RUN";
constexpr std::size_t MarkLimit = 256;
constexpr unsigned long LookInterval = 20; // Milliseconds.

QByteArray readProcessFile(pid_t pid, const char *name)
{
    QFile file(QStringLiteral("/proc/%1/%2").arg(pid).arg(QLatin1String(name)));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool hasOpen(pid_t pid, const struct stat &file)
{
    const QString directory = QStringLiteral("/proc/%1/fd/").arg(pid);
    const QStringList descriptors = QDir(directory).entryList(QDir::System | QDir::Files);
    for (const QString &descriptor : descriptors) {
        struct stat status;
        if (stat(QFile::encodeName(directory + descriptor).constData(), &status) == 0 && status.st_dev == file.st_dev
            && status.st_ino == file.st_ino)
            return true;
    }
    return false;
}

/// The parent of each process.
QHash<pid_t, pid_t> allProcesses()
{
    QHash<pid_t, pid_t> parents;
    const QStringList names = QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")}, QDir::Dirs);
    for (const QString &name : names) {
        // The program's name, in parentheses, may hold anything.
        const QByteArray status = readProcessFile(name.toInt(), "stat");
        parents.insert(name.toInt(), status.mid(status.lastIndexOf(')') + 1).simplified().split(' ').value(1).toInt());
    }
    return parents;
}

bool isZombie(pid_t pid)
{
    const QByteArray status = readProcessFile(pid, "stat");
    return status.mid(status.lastIndexOf(')') + 1).simplified().startsWith('Z');
}

/// What carries the mark or has the lock's file open, and all that these have started.
QSet<pid_t> leftovers(const QByteArray &mark, const struct stat &lock)
{
    const QHash<pid_t, pid_t> parents = allProcesses();
    QSet<pid_t> found;
    for (auto process = parents.cbegin(); process != parents.cend(); ++process) {
        const pid_t pid = process.key();
        const bool isMarked = !mark.isEmpty() && readProcessFile(pid, "environ").split('\0').contains(mark);
        if (pid != getpid() && (isMarked || hasOpen(pid, lock)))
            found << pid;
    }
    for (int before = -1; before != found.size();) {
        before = found.size();
        for (auto process = parents.cbegin(); process != parents.cend(); ++process) {
            if (found.contains(process.value()) && process.key() != getpid())
                found << process.key();
        }
    }
    return found;
}

} // namespace

Succession::~Succession()
{
    if (m_lock >= 0)
        close(m_lock);
}

Succession::Result Succession::acquire()
{
    if (!RunDirectory::make()) {
        Log::write(Log::Warning, "no-run-directory",
                   {{"directory", QString::fromLatin1(RunDirectory::Path)}, {"error", qt_error_string(errno)}});
        return Unavailable;
    }
    const QDeadlineTimer deadline(Patience);
    for (;;) {
        // Opened anew each time: while this daemon waits, only a child of the other one is to have the file open. The
        // lock is one that a child does not inherit.
        const int file = open(RunDirectory::LockFile, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        if (file >= 0 && fcntl(file, F_SETLK, &lock) == 0) {
            m_lock = file;
            return Acquired;
        }
        const int error = errno;
        if (file < 0) {
            Log::write(Log::Warning, "no-lock-file", {{"error", qt_error_string(error)}});
            return Unavailable;
        }
        close(file);
        if (deadline.hasExpired())
            return Taken;
        QThread::msleep(LookInterval);
    }
}

void Succession::begin()
{
    const std::optional<std::string> before = readRegularFile(RunDirectory::RunFile, O_NOFOLLOW, MarkLimit);
    const QByteArray mark = before ? QByteArray(before->data(), int(before->size())) : QByteArray();
    struct stat lock = {};
    fstat(m_lock, &lock);

    int killed = 0;
    const QDeadlineTimer deadline(Patience);
    for (;;) {
        const QSet<pid_t> found = leftovers(mark, lock);
        bool isAlive = false;
        for (const pid_t pid : found) {
            if (isZombie(pid))
                continue;
            isAlive = true;
            killed += kill(pid, SIGKILL) == 0;
        }
        if (!isAlive || deadline.hasExpired())
            break;
        QThread::msleep(LookInterval);
    }
    if (killed > 0)
        Log::write(Log::Notice, "leftovers-ended", {{"signals", killed}});

    const QByteArray own = QUuid::createUuid().toByteArray(QUuid::WithoutBraces);
    qputenv(Variable, own);
    RunDirectory::write(RunDirectory::RunFile, QByteArray(Variable) + '=' + own);
}
