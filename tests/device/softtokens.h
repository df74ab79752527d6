// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// Soft tokens in alice's home and a certificate authority for their certificates. They are created by other tools than
/// the libraries that the client uses, and disappear with the device. Functions that return bool report errors on
/// standard error.
namespace SoftTokens {

const QString pin = QStringLiteral("31415926");
const QString home = QStringLiteral("/home/alice");
const QString authority = QStringLiteral("/home/alice/ca/root.pem");
const QString module = QStringLiteral("/usr/lib/softhsm/libsofthsm2.so");

/// Removes all tokens. On the first call, creates the root authority and the keys "rsa", "rsa-other", "rsa-1024",
/// "rsa-pss", which is for certificates (for tokens, "rsa-pss-plain"), "ec", "ec-384", "ec-521" and "ed25519".
bool reset();
/// The environment variables with which a program finds the tokens.
QStringList environment();

/// Serves the tokens of a module on a socket in alice's runtime directory, where the module p11-kit-client.so expects
/// it, until the device ends.
bool serve(const QString &provider = module);

/// The template of a certificate that logs alice in. Tests alter it.
QByteArray loginTemplate();
/// Creates a certificate from a template and returns the path of its file; empty on failure.
QString issue(const QString &name, const QByteArray &certificateTemplate, const QString &key = QStringLiteral("rsa"),
              const QString &authorityName = QStringLiteral("root"));
/// Creates an authority that `above` signs, or a self-signed one, with `extra` in its template.
bool makeAuthority(const QString &name, const QString &above = {}, const QByteArray &extra = {});
/// Creates a revocation list with one certificate and returns the path of its file. The list is out of date if `stale`.
QString revoke(const QString &certificate, const QString &authorityName = QStringLiteral("root"), bool stale = false);

/// Removes all tokens, as if they were unplugged; putBack() replaces the present tokens with the removed ones.
bool remove();
bool putBack();

/// Creates a token.
bool add(const QString &label, const QString &tokenPin = pin);
/// Puts a private key and its public key on a token.
bool putKeys(const QString &label, const QString &id, const QString &key, const QString &tokenPin = pin);
/// Puts a private key on a token, visible only with the PIN.
bool putHiddenKey(const QString &label, const QString &id, const QString &key, const QString &tokenPin = pin,
                  const QStringList &options = {});
/// Puts a private key on a token, visible without the PIN.
bool putVisibleKey(const QString &label, const QString &id, const QString &key);
/// Puts a certificate on a token; an empty id is left out.
bool putCert(const QString &label, const QString &id, const QString &certificate, const QString &tokenPin = pin,
             const QString &certLabel = QStringLiteral("certificate"));
/// Copies the public objects of the only token that have the id `id`, which ends in two zero bytes, until there are
/// `count` of each. Their ids end in consecutive numbers.
bool multiply(const QByteArray &id, int count);
/// Makes a certificate on the only token unreadable.
bool damage(const QString &certificate);
/// Replaces bytes of the only token's objects by as many others.
bool alter(const QByteArray &from, const QByteArray &to);
/// Puts a key pair and a certificate on a token.
bool enroll(const QString &label, const QString &id, const QString &certificate,
            const QString &key = QStringLiteral("rsa"), const QString &tokenPin = pin);

} // namespace SoftTokens
