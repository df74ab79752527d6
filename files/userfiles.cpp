// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "files/userfiles.h"

#include "files/descriptor.h"
#include "files/filesystemidentity.h"
#include "files/replacement.h"
#include "plugin/logging.h"

#include <QFile>
#include <QFileInfo>
#include <QUuid>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qint64 maximumSize = qint64(64) * 1024;
constexpr int pinAttempts = 16; ///< The directory's owner can undo what root does there, so root retries.
constexpr int maximumEntries = 1000; ///< A user could fill a directory to keep root busy.
constexpr mode_t directoryMode = 0755; ///< Before the process's umask applies.
constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;

/// The reason, as an errno value, why a file must not be used; 0 if there is none.
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

int openDirectory(const QString &path)
{
    return ::open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

bool moveTo(const QString &from, const QString &to)
{
    return ::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
}

/// An unpredictable name in the same directory as `path`.
QString uniqueName(const QString &path)
{
    return path + QLatin1Char('.') + QUuid::createUuid().toString().mid(1, 36);
}

void warnOfPutAside(const QString &path, const QString &aside)
{
    qCWarning(kavet) << "Put aside" << path << "as" << aside;
}

/// Moves entries that belong to root or `uid` from one directory to another, without replacing any. Returns whether the
/// first directory is empty afterwards.
bool moveOwn(int from, int to, uid_t uid)
{
    DIR *const listing = fdopendir(fcntl(from, F_DUPFD_CLOEXEC, 0));
    if (!listing)
        return false;
    bool empty = true;
    int count = 0;
    while (const dirent *entry = readdir(listing)) {
        const char *name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
            continue;
        struct stat status = {};
        const bool owned =
            fstatat(from, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && (status.st_uid == 0 || status.st_uid == uid);
        if (!owned || renameat2(from, name, to, name, RENAME_NOREPLACE) == -1)
            empty = false;
        if (++count == maximumEntries)
            break;
    }
    closedir(listing);
    return empty && count < maximumEntries;
}

} // namespace

PinnedFile::PinnedFile(const QString &path)
{
    // With O_PATH, opening neither blocks on a FIFO nor has effects on a device.
    pin(::open(QFile::encodeName(path).constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

PinnedFile::PinnedFile(const QString &path, uid_t uid, gid_t gid)
{
    const QByteArray name = QFile::encodeName(path);
    for (int attempt = 0; attempt < pinAttempts; ++attempt) {
        pin(::open(name.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (m_error == 0 && m_owner == uid) {
            if (!changeGroup(uid, gid) || !restrictPermissions())
                m_error = errno;
            return;
        }
        if (m_error == ENOENT) {
            // Root never gives a user a file other than the one that it has just created and holds open.
            pin(::open(name.constData(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, ownerOnly));
            if (m_error == 0 && fchown(m_descriptor, uid, gid) == 0) {
                m_owner = uid;
                m_group = gid;
                return;
            }
            if (m_error == EEXIST)
                continue;
            m_error = m_error ? m_error : errno;
            return;
        }
        const QString aside = uniqueName(path);
        if (moveTo(path, aside)) {
            warnOfPutAside(path, aside);
        } else if (errno != ENOENT) {
            m_error = errno;
            return;
        }
    }
    m_error = EAGAIN;
}

PinnedFile::PinnedFile(PinnedFile &&other) noexcept
    : m_descriptor(other.m_descriptor)
    , m_error(other.m_error)
    , m_owner(other.m_owner)
    , m_group(other.m_group)
{
    other.m_descriptor = -1;
    other.m_error = EBADF;
}

PinnedFile::~PinnedFile()
{
    pin(-1);
}

bool PinnedFile::isUsable() const
{
    return m_error == 0 || fail(m_error);
}

bool PinnedFile::countsFor(uid_t uid) const
{
    return exists() && (m_owner == 0 || m_owner == uid);
}

bool PinnedFile::changeGroup(uid_t uid, gid_t gid) const
{
    if (m_error || m_owner != uid)
        return fail(m_error ? m_error : EPERM);
    // An unnecessary change would trigger file watchers.
    return m_group == gid || fchownat(m_descriptor, "", uid, gid, AT_EMPTY_PATH) == 0;
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
    // Replacing needs write access to the directory only. Check that the owner may also write the file.
    const int descriptor = openAsOwner(O_WRONLY);
    if (descriptor == -1)
        return false;
    close(descriptor);
    struct stat status = {};
    if (fstat(m_descriptor, &status) == -1)
        return false;
    // The owner may have changed since the file was pinned.
    const FileSystemIdentity identity(status.st_uid, status.st_gid);
    return identity.assumed() ? replaceFile(m_descriptor, content) : fail(EPERM);
}

/// Takes ownership of `descriptor`; for -1, errno holds the reason.
void PinnedFile::pin(int descriptor)
{
    const int error = errno;
    if (m_descriptor != -1)
        close(m_descriptor);
    m_descriptor = descriptor;
    m_error = error;
    errno = error;
    if (descriptor == -1)
        return;
    struct stat status = {};
    m_error = fstat(descriptor, &status) == -1 ? errno : objection(status);
    m_owner = status.st_uid;
    m_group = status.st_gid;
}

// Uses the descriptor, not the path: LibAuthd::restrictPermissions() creates a missing file, which would be root's.
bool PinnedFile::restrictPermissions() const
{
    struct stat status = {};
    const bool isRestricted = fstat(m_descriptor, &status) == 0 && (status.st_mode & ~mode_t(S_IFMT)) == ownerOnly;
    // An unnecessary change would trigger file watchers.
    return isRestricted || chmod(pathOf(m_descriptor).constData(), ownerOnly) == 0;
}

int PinnedFile::openAsOwner(int flags) const
{
    if (!isUsable())
        return -1;
    const FileSystemIdentity identity(m_owner, m_group);
    if (!identity.assumed()) {
        errno = EPERM;
        return -1;
    }
    // Without O_NONBLOCK, a lease that the owner holds on the file would block the call.
    return ::open(pathOf(m_descriptor).constData(), flags | O_NONBLOCK | O_CLOEXEC);
}

// The former user may have left any number of files in the directory, at any depth, may still hold it open, and may be
// changing it right now. So root does not clean it up, but renames it as a whole, to a place that only root can write
// to. That is atomic and takes constant time. These directories do not pile up, because users get theirs back.
HandOver handOver(const QString &path, uid_t uid, gid_t gid)
{
    const Descriptor former(openDirectory(path));
    struct stat status = {};
    if (fstat(former.get(), &status) == -1)
        return HandOver::Failed;
    if (status.st_uid == 0 || status.st_uid == uid)
        return fchown(former.get(), uid, gid) == 0 ? HandOver::Same : HandOver::Failed;

    const QString directory = QFileInfo(path).canonicalFilePath();
    const auto placeOf = [&directory](uid_t owner) -> QString {
        return directory + QLatin1Char('.') + QString::number(owner);
    };
    const QString own = placeOf(uid);
    const QByteArray ownName = QFile::encodeName(own);
    // A new directory, because the former user has chosen the old one's mode.
    if (mkdir(ownName.constData(), directoryMode) == -1 && errno != EEXIST) {
        const int error = errno;
        qCWarning(kavet) << "Cannot create" << own << std::strerror(error);
        return HandOver::Failed;
    }
    QString aside = placeOf(status.st_uid);
    if (QFileInfo::exists(aside)) // An earlier call was interrupted.
        aside = uniqueName(aside);
    if (!moveTo(directory, aside))
        return HandOver::Failed;
    if (!moveTo(own, directory)) {
        moveTo(aside, directory);
        return HandOver::Failed;
    }

    // From here on the former user cannot change the directory, even through an open descriptor.
    const mode_t mode = (status.st_mode | S_IRWXU) & directoryMode;
    if (fchown(former.get(), 0, 0) == -1 || fchmod(former.get(), mode) == -1)
        return HandOver::Failed;
    const Descriptor present(openDirectory(directory));
    if (moveOwn(former.get(), present.get(), uid))
        rmdir(QFile::encodeName(aside).constData());
    else
        warnOfPutAside(path, aside);
    return fchown(present.get(), uid, gid) == 0 ? HandOver::Replaced : HandOver::Failed;
}
