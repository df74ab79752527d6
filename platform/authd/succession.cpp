// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "succession.h"

#include "log.h"
#include "rundirectory.h"

#include <QDeadlineTimer>
#include <QThread>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr unsigned long PollInterval = 20; // milliseconds

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
    const QDeadlineTimer deadline(ExitTimeout);
    for (;;) {
        // A child does not inherit a record lock.
        const int file = open(RunDirectory::LockFile, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
        if (file < 0) {
            Log::write(Log::Warning, "no-lock-file", {{"error", qt_error_string(errno)}});
            return Unavailable;
        }
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        if (fcntl(file, F_SETLK, &lock) == 0) {
            m_lock = file;
            return Acquired;
        }
        close(file);
        if (deadline.hasExpired())
            return Taken;
        QThread::msleep(PollInterval);
    }
}
