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
    /// Pins the file `path` of user `uid`, gives it the group `gid` and closes it to all but its owner (mode 0600).
    /// Whatever else stands there, a file of root's included, is put aside beside it, with a warning, and the file is
    /// made anew, empty.
    PinnedFile(const QString &path, uid_t uid, gid_t gid);
    /// Takes over what `other` pins; everything that is asked of `other` fails afterwards.
    PinnedFile(PinnedFile &&other) noexcept;
    ~PinnedFile();

    /// Whether anything stands there, of whatever kind. A symbolic link does, wherever it leads.
    bool exists() const { return m_descriptor != -1; }
    /// Whether there is a file to be touched. False, with errno set, when there is none.
    bool isUsable() const;
    /// Whether what stands there may count for user `uid`: it is root's or the user's own.
    bool countsFor(uid_t uid) const;
    /// Gives the file of `uid` the group `gid`. A file of anybody else is refused: it would be given away. False, with
    /// errno set, on failure.
    bool changeGroup(uid_t uid, gid_t gid) const;
    /// Reads the file into `content` with the rights of its owner and no more. False, with errno set, on failure, which
    /// includes a file larger than settings can sensibly be (64 KiB).
    bool read(QByteArray &content) const;
    /// Puts a new file with `content` in its place, with its owner, group and mode, and with the rights of its owner
    /// and no more. The old content stays whole until the new one is. This object keeps to the old file. False, with
    /// errno set, on failure, which includes more than read() takes.
    bool write(const QByteArray &content) const;

private:
    void pin(int descriptor);
    bool restrictPermissions() const;
    int openAsOwner(int flags) const;

    int m_descriptor = -1;
    int m_error = 0;
    uid_t m_owner = 0;
    gid_t m_group = 0;

    Q_DISABLE_COPY(PinnedFile)
};

/// What became of a directory that was to be handed over.
enum class HandOver {
    Failed, ///< With errno set.
    Same, ///< It is the user's.
    Replaced ///< Another directory, which is the user's, has taken its place.
};

/// Hands `directory` over to user `uid` and group `gid`. One of another user is put aside as a whole, as
/// "<directory>.<user id>", and comes back when it is that user's turn again. What root or `uid` own in it stays in
/// place; a warning tells when anything else was put aside.
HandOver handOver(const QString &directory, uid_t uid, gid_t gid);
