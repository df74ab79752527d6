// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QHash>
#include <QString>
#include <QTimer>

#include <optional>

/// A lock on a user.
struct Lock
{
    /// The method that asked for it.
    QString method;
    QString reason;
    /// When it ends, in seconds since the epoch; 0 when only root ends it.
    qint64 until = 0;

    /// Seconds left, rounded up; States::UntilUnlocked when only root ends it.
    uint duration() const;
};

/// Who is locked, kept in the file "/var/lib/authd/locks.conf", which only root may read. Each change is written at
/// once and survives a crash. One that cannot be written is reported in the log and tried again; meanwhile it is kept
/// in the run directory, for a daemon that follows this one.
class LockStore
{
public:
    LockStore();

    /// Reads the file; false, with a line in the log, when there is one that cannot be read or understood whole: then
    /// nobody knows who is locked.
    bool load();

    /// The lock that stands on user `uid` now.
    std::optional<Lock> find(uint uid) const;
    /// Locks user `uid` for `duration` seconds, States::UntilUnlocked for as long as root likes. A lock that lasts
    /// longer stays.
    void lock(uint uid, const QString &method, const QString &reason, uint duration);
    /// Takes the lock away; false when there was none.
    bool unlock(uint uid);
    /// Counts one more time that root has unlocked the user, locked or not.
    void countUnlock(uint uid);
    /// How often root has unlocked the user. The number outlives the machine: who keeps a count of failed attempts of
    /// its own forgets it when the number is another one, and at no other time.
    uint unlocks(uint uid) const { return m_unlocks.value(uid); }

private:
    bool load(const char *path);
    void save();

    QHash<uint, Lock> m_locks;
    QHash<uint, uint> m_unlocks;
    QTimer m_retry;
};
