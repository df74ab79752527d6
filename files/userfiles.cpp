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
constexpr int pinAttempts = 16; ///< In which the owner of the directory may undo what root does there.
constexpr int maximumEntries = 1000; ///< Of another user's directory; whoever fills it must not keep root busy.
constexpr mode_t directoryMode = 0755; ///< As far as the process's mask leaves it.
constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;

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

int openDirectory(const QString &path)
{
    return ::open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

bool moveTo(const QString &from, const QString &to)
{
    return ::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
}

/// A name beside `path` that nobody can have foreseen.
QString uniqueName(const QString &path)
{
    return path + QLatin1Char('.') + QUuid::createUuid().toString().mid(1, 36);
}

void warnOfPutAside(const QString &path, const QString &aside)
{
    qCWarning(kavet) << "Put aside" << path << "as" << aside;
}

/// Moves what root or `uid` own from one directory to another that has nothing of that name. Whether the first one then
/// is empty.
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
    // Such a descriptor neither waits for a FIFO's other end nor wakes a device.
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
            // What root has just made, and holds by this descriptor, is all that is ever given to a user.
            pin(::open(name.constData(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, ownerOnly));
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
    // Changing it in vain would be one more event for whoever watches the file.
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

/// Takes over `descriptor`, which is -1 with errno set when there is none.
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

// By the descriptor: at the path, which is the user's to clear, a file of root's would be made.
bool PinnedFile::restrictPermissions() const
{
    struct stat status = {};
    if (fstat(m_descriptor, &status) == -1)
        return false;
    // Changing them in vain would be one more event for whoever watches the file.
    return (status.st_mode & ~mode_t(S_IFMT)) == ownerOnly || chmod(pathOf(m_descriptor).constData(), ownerOnly) == 0;
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
    // The owner may hold a lease on the file, which would keep an opening that waits waiting.
    return ::open(pathOf(m_descriptor).constData(), flags | O_NONBLOCK | O_CLOEXEC);
}

// A former user may have left anything in the directory, in any number and depth, and may keep it open, own its access
// control lists or move things about in it at this moment. So nothing is tidied up in it: all of it goes, to a place
// that only root can write to, in one step that always takes equally long. There it waits for its user, which is why it
// does not pile up.
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
    // The former user has chosen the mode of the former directory only.
    if (mkdir(ownName.constData(), directoryMode) == -1 && errno != EEXIST) {
        const int error = errno;
        qCWarning(kavet) << "Cannot make" << own << std::strerror(error);
        errno = error;
        return HandOver::Failed;
    }
    QString aside = placeOf(status.st_uid);
    if (QFileInfo::exists(aside)) // Root's work was cut short once.
        aside = uniqueName(aside);
    if (!moveTo(directory, aside))
        return HandOver::Failed;
    if (!moveTo(own, directory)) {
        moveTo(aside, directory);
        return HandOver::Failed;
    }

    // Its user can change nothing in it from here on, also by a descriptor.
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
