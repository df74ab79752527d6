// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QString>

#include <sys/types.h>

// Root's hands in a directory that belongs to a user, where every name is the user's to choose: a link, a FIFO or a
// directory may stand where a file is expected, and that may change at any moment.

/// A file pinned by a descriptor, so that all that is done is done to one and the same file, whatever its path leads to
/// later. Only a regular file with one link, not reached through a link in the last path element, is touched.
class PinnedFile
{
public:
    /// Pins the file `path`. When there is none to be touched, everything below fails with errno telling why.
    explicit PinnedFile(const QString &path);
    ~PinnedFile();

    /// Gives the file to `uid` and `gid`. Only a file of root's or of that user's own is given; any other is refused.
    /// A file that is theirs already is not touched. False, with errno set, on failure.
    bool changeOwner(uid_t uid, gid_t gid) const;
    /// Reads the file into `content` with the rights of its owner and no more. False, with errno set, on failure, which
    /// includes a file larger than settings can sensibly be (64 KiB).
    bool read(QByteArray &content) const;
    /// Puts a new file with `content` in its place, with its owner, group and mode, and with the rights of its owner
    /// and no more. The old content stays whole until the new one is. This object keeps to the old file. False, with
    /// errno set, on failure, which includes more than read() takes.
    bool write(const QByteArray &content) const;

private:
    int openAsOwner(int flags) const;

    int m_descriptor;
    int m_error = 0;
    uid_t m_owner = 0;
    gid_t m_group = 0;

    Q_DISABLE_COPY(PinnedFile)
};
