// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QDBusContext>
#include <QObject>

/// The user-data wiper: empties the home directory of the user that root names. It does not descend into other file
/// systems mounted below that directory.
class Wiper : public QObject, protected QDBusContext
{
    Q_OBJECT

public:
    using QObject::QObject;

public Q_SLOTS:
    /// Removes the data of the user with this login name. Replies when the removal is complete. Replies with an error
    /// when there is no such user, when the user is root, when the user does not own the home directory, or when
    /// something in it cannot be removed.
    void ProcessTargetUser(const QString &user);

private:
    void refuse(const char *reason, const QString &text);
};
