// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QDBusContext>
#include <QObject>

/// The user-data wiper: empties the home directory of a user whom root names. What lies on other file systems mounted
/// below it is left alone.
class Wiper : public QObject, protected QDBusContext
{
    Q_OBJECT

public:
    using QObject::QObject;

public Q_SLOTS:
    /// Removes the data of the user with this login name. The call is answered when that is done; with an error when
    /// there is no such user, the user is the system's own, the home directory is not that user's, or something in it
    /// could not be removed.
    void ProcessTargetUser(const QString &user);

private:
    void refuse(const char *reason, const QString &text);
};
