// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "rundirectory.h"

#include "log.h"

#include <cerrno>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

bool RunDirectory::make()
{
    if (mkdir(Path, S_IRWXU) != 0 && errno != EEXIST)
        return false;
    struct stat status;
    if (lstat(Path, &status) != 0)
        return false;
    if (S_ISDIR(status.st_mode) && status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0)
        return true;
    errno = EPERM;
    return false;
}

bool RunDirectory::write(const char *path, const QByteArray &content)
{
    g_autoptr(GError) error = nullptr;
    if (g_file_set_contents_full(path, content.constData(), content.size(), G_FILE_SET_CONTENTS_CONSISTENT,
                                 S_IRUSR | S_IWUSR, &error))
        return true;
    Log::write(Log::Error, "not-recorded",
               {{"file", QString::fromLatin1(path)}, {"error", QString::fromUtf8(error->message)}});
    return false;
}
