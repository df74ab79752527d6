// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArrayList>
#include <QString>

/// PKCS#11 tokens. Each call reloads the modules to see the tokens that are currently present, and blocks until the
/// modules return. The client makes each call in a helper process.
namespace Tokens {

/// The outcome of a call. The values are the helper's exit codes, chosen so that no crash or library produces them by
/// accident.
enum Outcome {
    Success = 64,
    CertRefused, ///< Expired, revoked, untrusted, not usable for login, of another user, or without a key
    DefaultCertRefused, ///< The same, for the default certificate of the settings
    WrongPin,
    PinBlocked,
    NoToken, ///< Absent, or removed during the call
    ModuleFailed,
};

/// Lists the certificates with a private key on all present tokens, as PKCS#11 URIs, the default first.
Outcome list(QByteArrayList &certs);

/// Checks that the token signs for the user with the certificate's key. `cert` is a PKCS#11 URI; if empty, the default
/// certificate is used.
Outcome validate(const QByteArray &cert, const QString &user, const QByteArray &pin);

} // namespace Tokens
