// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include <authd/libauthd.h>
#include <authd/vocabulary.h>

#include "platformlog.h"
#include "userdatabase.h"

#include <QFile>
#include <QScopeGuard>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(authdPlatform, "authd.platform", QtWarningMsg)

namespace LibAuthd {

namespace {

constexpr mode_t OwnerOnly = S_IRUSR | S_IWUSR;
constexpr mode_t AllModeBits = 07777;

/// The errno value that says why a file must not be restricted; 0 if it may be.
int restrictionError(const struct stat &status)
{
    if (S_ISLNK(status.st_mode))
        return ELOOP;
    if (S_ISDIR(status.st_mode))
        return EISDIR;
    if (!S_ISREG(status.st_mode))
        return EINVAL;
    return status.st_nlink == 1 ? 0 : EMLINK;
}

} // namespace

QString userName(uint uid)
{
    const auto user = UserDatabase::find(uid);
    return user ? QString::fromUtf8(user->name) : QString();
}

bool restrictPermissions(const QString &path)
{
    // Another process may create or remove the file between the two calls to open(), so try both again.
    constexpr int Attempts = 16;

    const QByteArray name = QFile::encodeName(path);
    if (name.contains('\0')) {
        errno = EINVAL;
        return false;
    }
    int fd = -1;
    for (int attempt = 0; fd < 0 && attempt < Attempts; ++attempt) {
        // O_PATH neither opens the file nor follows a link.
        fd = open(name.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0 && errno == ENOENT)
            fd = open(name.constData(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, OwnerOnly);
        if (fd < 0 && errno != EEXIST)
            return false;
    }
    if (fd < 0)
        return false;
    const auto closer = qScopeGuard([fd] { close(fd); });

    struct stat status;
    if (fstat(fd, &status) != 0)
        return false;
    if (const int error = restrictionError(status)) {
        errno = error;
        return false;
    }
    if ((status.st_mode & AllModeBits) == OwnerOnly)
        return true;
    const QByteArray pinned = "/proc/self/fd/" + QByteArray::number(fd);
    return chmod(pinned.constData(), OwnerOnly) == 0;
}

QMap<QString, QVariant> inputRequestParams(int request)
{
    return {{Vocabulary::InputRequestType, request}};
}

QMap<QString, QVariant> resultCodeParams(int code)
{
    return {{Vocabulary::ResultCode, code}};
}

} // namespace LibAuthd
