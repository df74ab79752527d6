// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QFlags>
#include <QString>

/// The user's settings for the client, from the client's own configuration directory. Each object reads the file again.
class ClientSettings
{
public:
    /// The accepted kinds of credentials.
    enum class AuthType { Any, Password, Cert };
    /// The certificate fields that may name the user.
    enum class Mapping {
        UserId = 1, ///< The subject's user id
        PrincipalName = 2, ///< The local part of a principal name among the alternative names
        Email = 4, ///< The local part of an email address among the alternative names
        CommonName = 8, ///< The subject's common name
    };
    Q_DECLARE_FLAGS(Mappings, Mapping)

    ClientSettings();

    /// The settings file. Only its user may read it.
    static QString path();

    /// The password's hash; empty when no password is set.
    QByteArray passwordHash() const { return m_passwordHash; }
    /// Stores the password's hash. Returns false on failure.
    static bool setPasswordHash(const QByteArray &hash);

    /// The number of failed attempts that locks the user; 0 means never.
    int lockAfter() const { return m_lockAfter; }
    /// The number of failed attempts after which the user's data is to be removed; 0 means never.
    int removeAfter() const { return m_removeAfter; }
    /// The kind of credentials that the client accepts.
    AuthType authType() const { return m_authType; }

    /// The path of the PKCS#11 module; empty for the modules registered in the system.
    QString module() const { return m_module; }
    /// The file or directory with the trusted certificates; empty if there are none.
    QString trustAnchors() const { return m_trustAnchors; }
    /// The file or directory with certificate revocation lists; empty if there are none.
    QString crls() const { return m_crls; }
    /// The accepted mappings. One match suffices.
    Mappings mappings() const { return m_mappings; }
    /// The required domain of principal names and email addresses; empty for any.
    QString mappingDomain() const { return m_mappingDomain; }
    /// The URI of the certificate to use when a call names none; empty if there is no default.
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
