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
    /// When it ends, in seconds since the epoch; 0 if it lasts until root unlocks the user.
    qint64 until = 0;

    /// The seconds left; States::UntilUnlocked if it lasts until root unlocks the user.
    uint duration() const;
};

/// The locked users, stored in the file "/var/lib/authd/locks.conf", which only root may read. Every change is written
/// durably at once. A failed write is logged and retried; until it succeeds, the run directory holds a copy for a
/// restarted daemon.
class LockStore
{
public:
    LockStore();

    /// Reads the file. Returns false, with a log entry, when the file exists but cannot be read or fully parsed, so
    /// that it is unknown who is locked.
    bool load();

    /// The user's current lock, if any.
    std::optional<Lock> find(uint uid) const;
    /// Locks user `uid` for `duration` seconds, or indefinitely for States::UntilUnlocked. An existing lock that lasts
    /// longer stays.
    void lock(uint uid, const QString &method, const QString &reason, uint duration);
    /// Removes the lock. Returns false when there was none.
    bool unlock(uint uid);
    /// Counts an unlock by root, whether or not the user was locked.
    void countUnlock(uint uid);
    /// How often root has unlocked the user. The number survives reboots. A client that keeps its own count of failed
    /// attempts resets it when this number has changed, and only then.
    uint unlocks(uint uid) const { return m_unlocks.value(uid); }

private:
    bool load(const char *path);
    void save();

    QHash<uint, Lock> m_locks;
    QHash<uint, uint> m_unlocks;
    QTimer m_retry;
};
