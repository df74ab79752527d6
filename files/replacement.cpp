// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "files/replacement.h"

#include "files/descriptor.h"

#include <QUuid>

#include <cerrno>
#include <climits>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool writeWhole(int descriptor, const QByteArray &content)
{
    const ssize_t written = write(descriptor, content.constData(), size_t(content.size()));
    if (written >= 0 && written < content.size())
        errno = ENOSPC; // A regular file accepts less only when the file system is full.
    return written == content.size();
}

/// Creates the file `name` with `content` in `directory`.
bool makeFile(int directory, const QByteArray &name, mode_t mode, const QByteArray &content)
{
    const Descriptor made(
        openat(directory, name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    return made.isValid() && fchmod(made.get(), mode) == 0 && writeWhole(made.get(), content);
}

/// Whether `name` in `directory` is the file that `status` describes. Sets errno if not.
bool isFile(int directory, const QByteArray &name, const struct stat &status)
{
    struct stat present = {};
    const bool same = fstatat(directory, name.constData(), &present, AT_SYMLINK_NOFOLLOW) == 0
                      && present.st_dev == status.st_dev && present.st_ino == status.st_ino;
    if (!same)
        errno = ESTALE;
    return same;
}

} // namespace

bool replaceFile(int descriptor, const QByteArray &content)
{
    char target[PATH_MAX] = {};
    struct stat status = {};
    if (fstat(descriptor, &status) == -1 || readlink(pathOf(descriptor).constData(), target, sizeof target - 1) == -1)
        return false;
    const QByteArray path(target);
    const int nameBegin = path.lastIndexOf('/') + 1;
    const QByteArray name = path.mid(nameBegin);
    const QByteArray fresh = '.' + name + '.' + QUuid::createUuid().toRfc4122().toHex();

    // The user may also swap the directory at any moment, so every call uses the descriptor of the one with the file.
    const Descriptor directory(open(path.left(nameBegin).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory.isValid())
        return false;
    const bool replaced = isFile(directory.get(), name, status)
                          && makeFile(directory.get(), fresh, status.st_mode & ~mode_t(S_IFMT), content)
                          && renameat(directory.get(), fresh.constData(), directory.get(), name.constData()) == 0;
    const int error = errno;
    if (!replaced)
        unlinkat(directory.get(), fresh.constData(), 0);
    errno = error;
    return replaced;
}
