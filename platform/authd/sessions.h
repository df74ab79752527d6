// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QDBusConnection>
#include <QMap>

/// The users' sessions that have started and not stopped, kept in the run directory, so that a daemon that follows a
/// crashed one can tell its methods of them.
class Sessions
{
public:
    /// By user; whether the programs that run for the user are managed.
    using Map = QMap<uint, bool>;

    /// Reads what the daemon before has recorded.
    Sessions();

    /// Answers the sessions that go on, and forgets all others: those that the login manager on `bus` knows of, where
    /// there is one, else the recorded ones.
    Map resume(const QDBusConnection &bus);

    /// A session that is managed stays so.
    void start(uint uid, bool manageClient);
    void stop(uint uid);
    /// The user has been locked. What a method does at a managed session's start, such as removing the data of a user
    /// who used up all attempts, is not for a session in which that has happened: told of it again, it is unmanaged.
    void handleLock(uint uid);

private:
    void save() const;

    Map m_sessions;
};
