// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QFlags>
#include <QString>

/// The settings that the client's user has made, in the client's own configuration directory. Each object reads the
/// file anew.
class ClientSettings
{
public:
    /// What the user authenticates with.
    enum class AuthType { Any, Password, Cert };
    /// What in a certificate may name its user.
    enum class Mapping {
        UserId = 1, ///< The subject's user id.
        PrincipalName = 2, ///< The user's part of the alternative name that is a principal name.
        Email = 4, ///< The user's part of the alternative name that is a mail address.
        CommonName = 8, ///< The subject's common name.
    };
    Q_DECLARE_FLAGS(Mappings, Mapping)

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

    /// The PKCS#11 module's path; empty: those that the system has registered.
    QString module() const { return m_module; }
    /// The file or directory of certificates that are trusted; empty: none are.
    QString trustAnchors() const { return m_trustAnchors; }
    /// The file or directory of certificate revocation lists; empty: there are none.
    QString crls() const { return m_crls; }
    /// Any of these will do.
    Mappings mappings() const { return m_mappings; }
    /// The domain that principal names and mail addresses must have; empty: any.
    QString mappingDomain() const { return m_mappingDomain; }
    /// The URI of the certificate to take when none is named; empty: there is none.
    QByteArray defaultCert() const { return m_defaultCert; }

private:
    QByteArray m_passwordHash;
    int m_lockAfter;
    int m_removeAfter;
    AuthType m_authType;
    QString m_module;
    QString m_trustAnchors;
    QString m_crls;
    Mappings m_mappings;
    QString m_mappingDomain;
    QByteArray m_defaultCert;
};
