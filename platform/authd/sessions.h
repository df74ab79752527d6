// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QDBusConnection>
#include <QMap>

/// The users' running sessions, recorded in the run directory so that a restarted daemon can report them to its
/// methods.
class Sessions
{
public:
    /// Maps each user to whether the user's client is managed.
    using Map = QMap<uint, bool>;

    /// Reads the record of the previous daemon.
    Sessions();

    /// Returns the sessions that still exist, and drops all others. Asks the login manager on `bus` if there is one;
    /// otherwise trusts the record.
    Map resume(const QDBusConnection &bus);

    /// Records a session. A managed session stays managed.
    void start(uint uid, bool manageClient);
    void stop(uint uid);
    /// Marks the user's session as unmanaged after a lock. At the start of a managed session a method may remove the
    /// data of a user without attempts left; a restarted daemon must not trigger that for a session that is already
    /// running.
    void handleLock(uint uid);

private:
    void save() const;

    Map m_sessions;
};
