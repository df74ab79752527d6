// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "childrecord.h"

#include "log.h"
#include "regularfile.h"
#include "rundirectory.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QMap>
#include <QThread>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::chrono::seconds KillTimeout{5};
constexpr unsigned long PollInterval = 20; // milliseconds
/// Ended processes are removed from the record after this many forks.
constexpr int TidyInterval = 64;

/// A process, as described by /proc/<pid>/stat.
struct Process
{
    pid_t pid = 0;
    char state = 0;
    pid_t parent = 0;
    /// Start time in clock ticks since boot. Together with the process id it identifies a process uniquely.
    quint64 start = 0;

    bool isSame(const Process &other) const { return pid == other.pid && start == other.start; }
    bool isZombie() const { return state == 'Z'; }
};

using Processes = QMap<pid_t, Process>;

int recordFile = -1;
pid_t forker = 0;
int forks = 0;

/// Parses a line of /proc/<pid>/stat. Returns process id 0, which no process has, for any other line.
Process parse(const QByteArray &line)
{
    // The program's name, in parentheses, may contain spaces and parentheses.
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 1).simplified().split(' ');
    constexpr int StateField = 0;
    constexpr int ParentField = 1;
    constexpr int StartField = 19;
    if (fields.size() <= StartField || fields.at(StateField).isEmpty())
        return {};
    return {line.left(line.indexOf(' ')).toInt(), fields.at(StateField).front(), fields.at(ParentField).toInt(),
            fields.at(StartField).toULongLong()};
}

Processes recorded()
{
    Processes processes;
    const std::optional<std::string> content =
        readRegularFile(RunDirectory::ChildrenFile, O_NOFOLLOW, RunDirectory::SizeLimit);
    if (!content)
        return processes;
    const QList<QByteArray> lines = QByteArray(content->data(), int(content->size())).split('\n');
    for (const QByteArray &line : lines) {
        const Process process = parse(line);
        if (process.pid > 0)
            processes.insert(process.pid, process);
    }
    return processes;
}

QByteArray readStatus(const QString &pid)
{
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

Processes running()
{
    Processes processes;
    const QStringList names = QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")}, QDir::Dirs);
    for (const QString &name : names) {
        const Process process = parse(readStatus(name));
        if (process.pid > 0)
            processes.insert(process.pid, process);
    }
    return processes;
}

/// Adds those of the `present` processes that are descendants of processes in `found`.
void addDescendants(Processes &found, const Processes &present)
{
    for (int before = -1; before != found.size();) {
        before = found.size();
        for (const Process &process : present) {
            const auto parent = found.constFind(process.parent);
            if (parent != found.constEnd() && present.value(parent->pid).isSame(*parent) && process.pid != getpid())
                found.insert(process.pid, process);
        }
    }
}

void open()
{
    if (recordFile >= 0)
        close(recordFile);
    recordFile = ::open(RunDirectory::ChildrenFile, O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC);
}

/// Removes ended processes from the record. Otherwise it would grow for as long as the daemon runs.
void tidy()
{
    QByteArray content;
    const Processes processes = recorded();
    for (const Process &process : processes) {
        const QByteArray status = readStatus(QString::number(process.pid));
        const Process now = parse(status);
        if (now.isSame(process) && !now.isZombie())
            content += status;
    }
    if (RunDirectory::write(RunDirectory::ChildrenFile, content))
        open();
}

void prepareFork()
{
    forker = getpid();
    if (++forks % TidyInterval == 0)
        tidy();
}

/// Runs in the forked child: async-signal-safe calls only.
void recordItself()
{
    // Die with the parent, until the child changes its user. A child waits for its parent before exec, and would wait
    // forever if the parent had exited.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != forker)
        _exit(EXIT_FAILURE);
    char status[1024];
    const int file = ::open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    const ssize_t size = read(file, status, sizeof status);
    close(file);
    if (size > 0) [[maybe_unused]]
        const ssize_t written = write(recordFile, status, size_t(size));
}

} // namespace

void ChildRecord::endLeftovers()
{
    Processes found = recorded();
    int killed = 0;
    const QDeadlineTimer deadline(KillTimeout);
    for (;;) {
        const Processes present = running();
        addDescendants(found, present);
        int alive = 0;
        for (const Process &process : qAsConst(found)) {
            const Process now = present.value(process.pid);
            if (!now.isSame(process) || now.isZombie())
                continue;
            ++alive;
            killed += kill(process.pid, SIGKILL) == 0;
        }
        if (alive == 0)
            break;
        if (deadline.hasExpired()) {
            Log::write(Log::Warning, "leftovers-remain", {{"processes", alive}});
            break;
        }
        QThread::msleep(PollInterval);
    }
    // After an exec of itself, the daemon is still the parent of these processes.
    while (waitpid(-1, nullptr, WNOHANG) > 0) { }
    if (killed > 0)
        Log::write(Log::Notice, "leftovers-ended", {{"signals", killed}});
}

void ChildRecord::begin()
{
    if (!RunDirectory::write(RunDirectory::ChildrenFile, {}))
        return;
    open();
    pthread_atfork(prepareFork, nullptr, recordItself);
}
