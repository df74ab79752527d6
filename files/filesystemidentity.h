// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QtGlobal>

#include <cerrno>

#include <sys/fsuid.h>
#include <sys/types.h>

/// File-system identity of the calling thread for the life of the object. Its other groups stay: they are not asked for
/// where the owner touches the owner's own file.
class FileSystemIdentity
{
public:
    /// Takes the identity of user `uid` and group `gid`.
    FileSystemIdentity(uid_t uid, gid_t gid)
        : m_gid(gid_t(setfsgid(gid)))
        , m_uid(uid_t(setfsuid(uid)))
        // The only way to learn the identity in force is to ask for an impossible one.
        , m_assumed(uid_t(setfsuid(uid_t(-1))) == uid && gid_t(setfsgid(gid_t(-1))) == gid)
    {
    }
    /// Takes the former identity again, keeping errno.
    ~FileSystemIdentity()
    {
        const int error = errno;
        setfsuid(m_uid);
        setfsgid(m_gid);
        errno = error;
    }

    /// Whether it could be taken; only root can.
    bool assumed() const { return m_assumed; }

private:
    const gid_t m_gid;
    const uid_t m_uid;
    const bool m_assumed;

    Q_DISABLE_COPY(FileSystemIdentity)
};
