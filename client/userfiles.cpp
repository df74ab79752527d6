// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/userfiles.h"

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
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

constexpr qint64 maximumSize = qint64(16) * 1024 * 1024;
constexpr int maximumLine = 4096;
constexpr char generalGroup[] = "[general]";
const QString settingsName = QStringLiteral("settings.conf");

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

/// A line of settings, with its end of line.
struct SettingsLine
{
    int begin = 0;
    int size = 0; ///< 0: there is none, but this is the place for it.
    bool inGroup = false; ///< The place is below the general group's header.
};

/// The line that sets `key` in the general group, which is also where keys before any group belong; the last if there
/// are several, as in QSettings.
SettingsLine findLine(const QByteArray &content, const QByteArray &key)
{
    SettingsLine found;
    bool inGeneral = true;
    for (int begin = 0, end = 0; begin < content.size(); begin = end) {
        end = content.indexOf('\n', begin) + 1;
        if (end == 0)
            end = content.size();
        const QByteArray line = QByteArray::fromRawData(content.constData() + begin, end - begin).trimmed();
        if (line.startsWith('[')) {
            inGeneral = line.toLower() == generalGroup;
            if (inGeneral && found.size == 0 && content.at(end - 1) == '\n')
                found = {end, 0, true};
        } else if (inGeneral && line.startsWith(key) && line.mid(key.size()).trimmed().startsWith('=')) {
            found = {begin, end - begin, true};
        }
    }
    return found;
}

/// Whether a line may hold a serialized object. QSettings would build whatever object that describes, of any size and
/// depth, and with it the user could end the daemon. With a backslash in it a line may spell anything.
bool isUnsafe(const QByteArray &line)
{
    const QByteArray text = QByteArray(line).replace('"', QByteArray());
    return line.size() > maximumLine || text.contains('\\') || text.contains("@Variant(")
           || text.contains("@DateTime(");
}

/// Path for a copy of settings; empty when there is no such directory, and then nothing can be written there.
QString copyPath(const QTemporaryDir &scratch)
{
    return scratch.isValid() ? QString(scratch.path() + QLatin1Char('/') + settingsName) : QString();
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
    QFile file;
    const int descriptor = openAsOwner(O_WRONLY);
    if (descriptor == -1)
        return false;
    file.open(descriptor, QIODevice::WriteOnly | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle);
    return file.write(content) == content.size() && file.resize(content.size());
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

UserSettings::UserSettings(const QString &path)
    : m_file(path)
    , m_readable(m_file.read(m_content))
{
}

UserSettings::~UserSettings()
{
    if (m_changed)
        m_file.write(m_content);
}

QVariant UserSettings::value(const QString &key, const QVariant &defaultValue) const
{
    if (!m_readable)
        return defaultValue;

    const SettingsLine found = findLine(m_content, key.toUtf8());
    const QByteArray line = m_content.mid(found.begin, found.size);
    const QTemporaryDir scratch;
    QFile copy(copyPath(scratch));
    if (line.isEmpty() || isUnsafe(line) || !copy.open(QIODevice::WriteOnly) || copy.write(line) != line.size())
        return defaultValue;
    copy.close();
    return QSettings(copy.fileName(), QSettings::NativeFormat).value(key, defaultValue);
}

void UserSettings::setValue(const QString &key, const QVariant &value)
{
    if (!m_readable)
        return;

    const QTemporaryDir scratch;
    QFile copy(copyPath(scratch));
    QSettings settings(copy.fileName(), QSettings::NativeFormat);
    settings.setValue(key, value);
    settings.sync();
    if (!copy.open(QIODevice::ReadOnly))
        return;
    const QByteArray header = copy.readLine();
    const SettingsLine found = findLine(m_content, key.toUtf8());
    m_content.replace(found.begin, found.size, (found.inGroup ? QByteArray() : header) + copy.readAll());
    m_changed = true;
}
