// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QString>

#include <sys/types.h>

// Safe access for root to files in a directory that a user owns. The user may put a link, a FIFO or a directory in the
// place of a file at any moment.

/// A file pinned by a file descriptor, so that every operation applies to the same file even if its path changes. Only
/// a regular file with one link is usable, and a symbolic link in the last path element is not followed.
class PinnedFile
{
public:
    /// Pins the file `path`. If there is no usable file, all operations fail and set errno to the reason.
    explicit PinnedFile(const QString &path);
    /// Pins the file `path` of user `uid`, and sets its group to `gid` and its mode to 0600. If the path is anything
    /// else, such as a file of root, it is renamed with a warning, and an empty file is created in its place.
    PinnedFile(const QString &path, uid_t uid, gid_t gid);
    /// Moves the file from `other`, on which all operations then fail.
    PinnedFile(PinnedFile &&other) noexcept;
    ~PinnedFile();

    /// Whether the path existed, with any file type. A dangling symbolic link exists.
    bool exists() const { return m_descriptor != -1; }
    /// Whether the file can be used. False, with errno set, if not.
    bool isUsable() const;
    /// Whether the file exists and belongs to root or to user `uid`.
    bool countsFor(uid_t uid) const;
    /// Sets the group of the file to `gid`. Fails for a file that `uid` does not own, so as not to give it away. False,
    /// with errno set, on failure.
    bool changeGroup(uid_t uid, gid_t gid) const;
    /// Reads the file into `content` with its owner's rights only. False, with errno set, on failure, and for a file
    /// larger than 64 KiB.
    bool read(QByteArray &content) const;
    /// Atomically replaces the file with a new one that has `content` and the same owner, group and mode. Uses its
    /// owner's rights only. This object still refers to the old file. False, with errno set, on failure, and for more
    /// than read() accepts.
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

/// The result of handOver().
enum class HandOver {
    Failed,
    Same, ///< The same directory belongs to the user now.
    Replaced ///< The user's own directory has replaced another user's.
};

/// Makes `directory` belong to user `uid` and group `gid`. Another user's directory is renamed as a whole to
/// "<directory>.<user id>", and comes back when it is handed to that user again. Entries that belong to root or `uid`
/// move to the new directory. If other entries remain in the old one, a warning is logged.
HandOver handOver(const QString &directory, uid_t uid, gid_t gid);
