// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "tokens.h"

#include "certificate.h"
#include "clientsettings.h"
#include "keyproof.h"
#include "tokenobjects.h"

#include <QLoggingCategory>
#include <QSet>

#include <algorithm>

using namespace TokenObjects;

namespace {

/// The protocol's limits for a list. A token may hold more.
constexpr int maximumCerts = 1000;
constexpr int maximumListSize = 256 * 1024; // bytes

/// Explains an unexpected failure: the token may have been removed, which only reloaded modules reliably notice.
Tokens::Outcome failure(const QByteArray &uri, int error, const ClientSettings &settings)
{
    qWarning("The token module failed: %s", gnutls_strerror(error));
    const Modules modules(settings);
    QByteArrayList tokens;
    return !modules.loaded() || presentTokens(tokens) != GNUTLS_E_SUCCESS || isPresent(uri, tokens)
               ? Tokens::ModuleFailed
               : Tokens::NoToken;
}

/// Adds the URIs of a token's certificates with a private key. The key may be invisible without the PIN.
int certsWithKey(const QByteArray &token, QByteArrayList &certs)
{
    Objects certificates;
    Objects keys;
    for (const auto &[flag, objects] :
         {std::pair(GNUTLS_PKCS11_OBJ_FLAG_CRT, &certificates), std::pair(GNUTLS_PKCS11_OBJ_FLAG_PRIVKEY, &keys),
          std::pair(GNUTLS_PKCS11_OBJ_FLAG_PUBKEY, &keys)}) {
        const int error = find(token, flag, *objects);
        if (error != GNUTLS_E_SUCCESS)
            return error;
    }
    QSet<QByteArray> keyIds;
    for (const Object &key : keys)
        keyIds << id(key);
    QSet<QByteArray> known(certs.begin(), certs.end());
    for (const Object &object : certificates) {
        const Certificate certificate = certificateOf(object);
        if (!certificate || id(object).isEmpty())
            continue;
        // A token without visible keys hides them. Then any certificate except an authority's may have a key.
        const bool hasKey = keys.empty() ? !isAuthority(certificate) : keyIds.contains(id(object));
        const QByteArray cert = uri(object);
        // Several certificates for one key may share a label, and thus a URI.
        if (hasKey && !known.contains(cert))
            certs << cert;
        known << cert;
    }
    return GNUTLS_E_SUCCESS;
}

/// Whether a URI may identify a certificate and contains nothing else, such as a PIN or the location of one.
bool isAcceptable(const QByteArray &cert)
{
    const QByteArrayList said = attributes(cert);
    return !cert.contains('?') && std::none_of(said.begin(), said.end(), [](const QByteArray &attribute) {
        return attribute.startsWith("pin-") || (attribute.startsWith("type=") && attribute != "type=cert");
    });
}

/// Returns the full URI under which a certificate is listed. Returns the URI unchanged if it matches no certificate or
/// several.
QByteArray listed(const QByteArray &cert)
{
    Objects found;
    return !cert.isEmpty() && find(cert, GNUTLS_PKCS11_OBJ_FLAG_CRT, found) == GNUTLS_E_SUCCESS && found.size() == 1
               ? uri(found.front())
               : cert;
}

/// Truncates a list that is too long.
void limit(QByteArrayList &certs)
{
    int count = 0;
    int size = 0;
    while (count < qMin(certs.size(), maximumCerts) && (size += certs.at(count).size()) <= maximumListSize)
        ++count;
    if (count < certs.size())
        qWarning("The list of %d certificates is too long; listing only %d", certs.size(), count);
    certs.erase(certs.begin() + count, certs.end());
}

/// Results besides GnuTLS's error codes, which are negative.
enum Obstacle { Refused = 1, Absent };

/// Checks the certificate before trying the PIN. Returns GnuTLS's error code or an Obstacle.
int validateOn(const QByteArray &cert, const QString &user, const QByteArray &pin, const ClientSettings &settings)
{
    QByteArrayList tokens;
    Objects found;
    int error = presentTokens(tokens);
    if (error == GNUTLS_E_SUCCESS)
        error = find(cert, GNUTLS_PKCS11_OBJ_FLAG_CRT, found);
    if (error != GNUTLS_E_SUCCESS)
        return error;
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&tokens](const Object &object) { return !tokens.contains(tokenPart(uri(object))); }),
                found.end());
    if (found.empty())
        return isPresent(cert, tokens) ? Refused : Absent;

    // A URI that matches certificates for different keys is ambiguous. Certificates for the same key are
    // interchangeable, such as a certificate and its renewal.
    const QByteArray token = tokenPart(uri(found.front()));
    const QByteArray keyId = id(found.front());
    if (keyId.isEmpty() || !std::all_of(found.begin(), found.end(), [&](const Object &object) {
            return tokenPart(uri(object)) == token && id(object) == keyId;
        }))
        return Refused;
    Objects onToken;
    error = find(token, GNUTLS_PKCS11_OBJ_FLAG_CRT, onToken);
    if (error != GNUTLS_E_SUCCESS)
        return error;
    std::vector<Certificate> others;
    for (const Object &other : onToken) {
        if (Certificate otherCertificate = certificateOf(other))
            others.push_back(std::move(otherCertificate));
    }
    Certificate certificate;
    for (const Object &object : found) {
        certificate = certificateOf(object);
        if (certificate && isTrusted(certificate, others, settings) && belongsTo(certificate, user, settings))
            break;
        certificate.reset();
    }
    if (!certificate)
        return Refused;

    error = proveKey(token, keyId, certificate, pin);
    unsigned flags = 0;
    // This attempt may have blocked the PIN.
    if (error == GNUTLS_E_PKCS11_PIN_ERROR
        && gnutls_pkcs11_token_get_flags(token.constData(), &flags) == GNUTLS_E_SUCCESS
        && flags & GNUTLS_PKCS11_TOKEN_USER_PIN_LOCKED)
        return GNUTLS_E_PKCS11_PIN_LOCKED;
    return error;
}

} // namespace

Tokens::Outcome Tokens::list(QByteArrayList &certs)
{
    const ClientSettings settings;
    const Modules modules(settings);
    QByteArrayList tokens;
    if (!modules.loaded() || presentTokens(tokens) != GNUTLS_E_SUCCESS)
        return ModuleFailed;
    for (const QByteArray &token : qAsConst(tokens)) {
        const int error = certsWithKey(token, certs);
        if (error != GNUTLS_E_SUCCESS)
            qWarning("Cannot read %s: %s", token.constData(), gnutls_strerror(error));
    }
    const QByteArray defaultCert = listed(settings.defaultCert());
    std::stable_partition(certs.begin(), certs.end(),
                          [&defaultCert](const QByteArray &cert) { return cert == defaultCert; });
    limit(certs);
    return Success;
}

Tokens::Outcome Tokens::validate(const QByteArray &cert, const QString &user, const QByteArray &pin)
{
    const ClientSettings settings;
    const QByteArray chosen = cert.isEmpty() ? settings.defaultCert() : cert;
    Outcome refused = chosen == settings.defaultCert() ? DefaultCertRefused : CertRefused;
    if (chosen.isEmpty() || !isAcceptable(chosen))
        return refused;
    int error = GNUTLS_E_SUCCESS;
    {
        const Modules modules(settings);
        if (!modules.loaded())
            return ModuleFailed;
        error = validateOn(chosen, user, pin, settings);
        if (listed(chosen) == listed(settings.defaultCert()))
            refused = DefaultCertRefused;
    }
    switch (error) {
    case GNUTLS_E_SUCCESS:
        return Success;
    case Refused:
    case GNUTLS_E_PARSING_ERROR: // invalid URI
    case GNUTLS_E_PKCS11_PIN_EXPIRED:
    case GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE: // no such key
    case GNUTLS_E_PK_SIG_VERIFY_FAILED:
        return refused;
    case Absent:
        return NoToken;
    case GNUTLS_E_PKCS11_PIN_ERROR:
        return WrongPin;
    case GNUTLS_E_PKCS11_PIN_LOCKED:
        return PinBlocked;
    default:
        return failure(chosen, error, settings);
    }
}
