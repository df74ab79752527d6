// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// Soft tokens in alice's home, and a certificate authority for what is on them; all is made anew by other tools than
/// the client's library calls, and lasts no longer than the device. Functions that return bool say on standard error
/// what went wrong.
namespace SoftTokens {

const QString pin = QStringLiteral("31415926");
const QString home = QStringLiteral("/home/alice");
const QString authority = QStringLiteral("/home/alice/ca/root.pem");

/// Removes all tokens and starts with no other; makes the root authority and the keys "rsa", "rsa-other", "rsa-1024",
/// "rsa-pss", which is for certificates and as "rsa-pss-plain" for tokens, "ec", "ec-384", "ec-521" and "ed25519" once.
bool reset();
/// What a program needs in its environment to find the tokens.
QStringList environment();

/// Serves the tokens of a module on a socket in alice's runtime directory, as the module p11-kit-client.so expects it,
/// for as long as the device lasts. Without a name, the module is the tokens' own.
bool serve(const QString &module = {});

/// The template of a certificate that logs alice in, to be altered.
QByteArray loginTemplate();
/// A certificate made from a template: the path of its file; empty on failure.
QString issue(const QString &name, const QByteArray &certificateTemplate, const QString &key = QStringLiteral("rsa"),
              const QString &authorityName = QStringLiteral("root"));
/// An authority below another, or one that stands for itself.
bool makeAuthority(const QString &name, const QString &above = {});
/// A list that revokes one certificate; the path of its file. The list is out of date if `stale`.
QString revoke(const QString &certificate, const QString &authorityName = QStringLiteral("root"), bool stale = false);

/// Removes all tokens, and puts back those that have been removed in place of others.
bool remove();
bool putBack();

/// A new token.
bool add(const QString &label, const QString &tokenPin = pin);
/// Puts a private and its public key on a token.
bool putKeys(const QString &label, const QString &id, const QString &key, const QString &tokenPin = pin);
/// Puts a private key on a token, where nobody sees it without the PIN.
bool putHiddenKey(const QString &label, const QString &id, const QString &key, const QString &tokenPin = pin,
                  const QStringList &options = {});
/// Puts a certificate on a token. Without an id, it has none.
bool putCert(const QString &label, const QString &id, const QString &certificate, const QString &tokenPin = pin,
             const QString &certLabel = QStringLiteral("certificate"));
/// Puts keys and certificate on a token.
bool enroll(const QString &label, const QString &id, const QString &certificate,
            const QString &key = QStringLiteral("rsa"), const QString &tokenPin = pin);

} // namespace SoftTokens
