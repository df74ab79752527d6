// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QDBusContext>
#include <QObject>
#include <QStringList>

/// The authentication of the user that the client runs as. Answers are those of the protocol: success, failed, lock,
/// remove, nousb, connerr, firstcererr, errauthtype. What concerns tokens is answered later, when it is known.
class KavetAuth : public QObject, protected QDBusContext
{
    Q_OBJECT

public:
    /// `user` is the login name of the only user who can be authenticated.
    explicit KavetAuth(const QString &user);

public Q_SLOTS:
    /// Checks the user's password, which is wiped.
    QString checkPassword(const QString &user, const QString &password);
    /// Checks a certificate on a token with the token's PIN, which is wiped. `cert` is one of getCertList, or empty for
    /// the default.
    QString validateCert(const QString &cert, const QString &user, const QString &pin);
    /// The certificates that validateCert takes.
    QStringList getCertList();

private:
    const QString m_user;
};
