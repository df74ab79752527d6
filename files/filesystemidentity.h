// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QtGlobal>

#include <sys/fsuid.h>
#include <sys/types.h>

/// Changes the file-system identity of the calling thread for the lifetime of the object. The supplementary groups
/// stay; the kernel does not check them when the owner accesses the owner's own file.
class FileSystemIdentity
{
public:
    /// Assumes the identity of user `uid` and group `gid`.
    FileSystemIdentity(uid_t uid, gid_t gid)
        : m_gid(gid_t(setfsgid(gid)))
        , m_uid(uid_t(setfsuid(uid)))
        // Setting an invalid id is the only way to query the current one.
        , m_assumed(uid_t(setfsuid(uid_t(-1))) == uid && gid_t(setfsgid(gid_t(-1))) == gid)
    {
    }
    /// Restores the former identity. Preserves errno, which these calls never set.
    ~FileSystemIdentity()
    {
        setfsuid(m_uid);
        setfsgid(m_gid);
    }

    /// Whether the constructor has succeeded. Only root can assume another identity.
    bool assumed() const { return m_assumed; }

private:
    const gid_t m_gid;
    const uid_t m_uid;
    const bool m_assumed;

    Q_DISABLE_COPY(FileSystemIdentity)
};
