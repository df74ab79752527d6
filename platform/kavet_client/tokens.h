// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArrayList>
#include <QString>

/// PKCS#11 tokens. Each call loads the modules anew, so that it sees the tokens that are there now, and blocks as long
/// as the modules take; the client makes each call in a process of its own.
namespace Tokens {

/// How a call ended. The values are exit codes of that process, none of which it would end with by accident.
enum Outcome {
    Success = 64,
    CertRefused, ///< Expired, revoked, untrusted, unusable for logging in, somebody else's, or without its key.
    DefaultCertRefused, ///< Likewise, and it is the one that the settings name as the default.
    WrongPin,
    PinBlocked,
    NoToken, ///< Absent, or removed meanwhile.
    ModuleFailed,
};

/// The certificates of all present tokens that have a private key beside them, as PKCS#11 URIs, the default first.
Outcome list(QByteArrayList &certs);

/// Whether the token signs for the user with the certificate's key. `cert` is a PKCS#11 URI; empty, it is the default
/// certificate.
Outcome validate(const QByteArray &cert, const QString &user, const QByteArray &pin);

} // namespace Tokens
