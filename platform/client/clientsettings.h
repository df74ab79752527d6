// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QString>

/// The settings that the client's user has made, in the client's own configuration directory. Each object reads the
/// file anew.
class ClientSettings
{
public:
    /// What the user authenticates with.
    enum class AuthType { Any, Password, Cert };

    ClientSettings();

    /// Where the settings are, readable by their user alone.
    static QString path();

    /// The password's hash; empty when no password has been set.
    QByteArray passwordHash() const { return m_passwordHash; }
    /// Stores the password's hash; false when it could not be stored.
    static bool setPasswordHash(const QByteArray &hash);

    /// The number of failed attempts from which on the user is locked; 0: never.
    int lockAfter() const { return m_lockAfter; }
    /// The number of failed attempts from which on the user's data is to be removed; 0: never.
    int removeAfter() const { return m_removeAfter; }
    /// What the user may authenticate with.
    AuthType authType() const { return m_authType; }

private:
    QByteArray m_passwordHash;
    int m_lockAfter;
    int m_removeAfter;
    AuthType m_authType;
};
