// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/userfiles.h"

#include "client/replacement.h"

#include <QFile>
#include <QVector>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <grp.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr qint64 maximumSize = qint64(64) * 1024;

/// File-system identity of the calling thread for the life of the object. The thread's supplementary groups go too, as
/// they would still open what the user may not; by system call, since the C library changes those of all threads.
class FileSystemIdentity
{
public:
    FileSystemIdentity(uid_t uid, gid_t gid)
        : m_groups(std::max(0, getgroups(0, nullptr)))
    {
        m_groups.resize(std::max(0, getgroups(m_groups.size(), m_groups.data())));
        syscall(SYS_setgroups, 0, nullptr);
        m_gid = gid_t(setfsgid(gid));
        m_uid = uid_t(setfsuid(uid));
        // The only way to learn the identity in force is to ask for an impossible one.
        m_assumed = uid_t(setfsuid(uid_t(-1))) == uid && gid_t(setfsgid(gid_t(-1))) == gid;
    }
    ~FileSystemIdentity()
    {
        const int error = errno;
        setfsuid(m_uid);
        setfsgid(m_gid);
        syscall(SYS_setgroups, m_groups.size(), m_groups.data());
        errno = error;
    }

    bool assumed() const { return m_assumed; }

private:
    QVector<gid_t> m_groups;
    uid_t m_uid;
    gid_t m_gid;
    bool m_assumed;

    Q_DISABLE_COPY(FileSystemIdentity)
};

/// Why a file is not to be touched, as an errno value; 0 when it may be.
int objection(const struct stat &status)
{
    if (S_ISLNK(status.st_mode))
        return ELOOP;
    if (S_ISDIR(status.st_mode))
        return EISDIR;
    if (!S_ISREG(status.st_mode))
        return EINVAL;
    return status.st_nlink == 1 ? 0 : EMLINK;
}

bool fail(int error)
{
    errno = error;
    return false;
}

} // namespace

PinnedFile::PinnedFile(const QString &path)
    // Such a descriptor neither waits for a FIFO's other end nor wakes a device.
    : m_descriptor(::open(QFile::encodeName(path).constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC))
{
    struct stat status = {};
    if (m_descriptor == -1 || fstat(m_descriptor, &status) == -1) {
        m_error = errno;
        return;
    }
    m_error = objection(status);
    m_owner = status.st_uid;
    m_group = status.st_gid;
}

PinnedFile::~PinnedFile()
{
    const int error = errno;
    if (m_descriptor != -1)
        close(m_descriptor);
    errno = error;
}

bool PinnedFile::changeOwner(uid_t uid, gid_t gid) const
{
    if (m_error)
        return fail(m_error);
    if (m_owner == uid && m_group == gid)
        return true; // Changing it all the same would be one more event for whoever watches the file.
    // What belongs to a third user has been moved here and is not ours to give.
    if (m_owner != uid && m_owner != geteuid())
        return fail(EPERM);
    return fchownat(m_descriptor, "", uid, gid, AT_EMPTY_PATH) == 0;
}

bool PinnedFile::read(QByteArray &content) const
{
    QFile file;
    const int descriptor = openAsOwner(O_RDONLY);
    if (descriptor == -1)
        return false;
    file.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle);
    content = file.read(maximumSize + 1);
    if (file.error() != QFileDevice::NoError)
        return fail(EIO);
    return content.size() <= maximumSize || fail(EFBIG);
}

bool PinnedFile::write(const QByteArray &content) const
{
    if (content.size() > maximumSize)
        return fail(EFBIG);
    // The owner may write to the directory and have protected the file.
    const int descriptor = openAsOwner(O_WRONLY);
    if (descriptor == -1)
        return false;
    close(descriptor);
    struct stat status = {};
    if (fstat(m_descriptor, &status) == -1)
        return false;
    // The file may have been given to somebody since it was pinned.
    const FileSystemIdentity identity(status.st_uid, status.st_gid);
    return identity.assumed() ? replaceFile(m_descriptor, content) : fail(EPERM);
}

int PinnedFile::openAsOwner(int flags) const
{
    if (m_error) {
        errno = m_error;
        return -1;
    }
    const FileSystemIdentity identity(m_owner, m_group);
    if (!identity.assumed()) {
        errno = EPERM;
        return -1;
    }
    // The owner may hold a lease on the file, which would keep an opening that waits waiting.
    return ::open(QByteArray("/proc/self/fd/" + QByteArray::number(m_descriptor)).constData(),
                  flags | O_NONBLOCK | O_CLOEXEC);
}
