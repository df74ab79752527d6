// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "tokens.h"

#include "certdescription.h"
#include "certificate.h"
#include "clientsettings.h"
#include "keyproof.h"
#include "tokenobjects.h"

#include <QLoggingCategory>

#include <algorithm>

using namespace TokenObjects;

namespace {

/// Explains an unexpected failure: the token may have been removed, which only reloaded modules reliably notice.
Tokens::Outcome failure(const QByteArray &uri, int error, const ClientSettings &settings)
{
    qWarning("The token module failed: %s", gnutls_strerror(error));
    const Modules modules(settings.module());
    QByteArrayList tokens;
    return !modules.loaded() || presentTokens(tokens) != GNUTLS_E_SUCCESS || isPresent(uri, tokens)
               ? Tokens::ModuleFailed
               : Tokens::NoToken;
}

/// Whether a URI may identify a certificate and contains nothing else, such as a PIN or the location of one. GnuTLS
/// reports some faults after an empty attribute, which is invalid, as a lack of memory.
bool isAcceptable(const QByteArray &cert)
{
    const QByteArrayList said = attributes(cert);
    return !cert.contains('?') && !said.mid(0, said.size() - 1).contains({}) // The last may be empty.
           && std::none_of(said.begin(), said.end(), [](const QByteArray &attribute) {
                  return attribute.startsWith("pin-") || (attribute.startsWith("type=") && attribute != "type=cert");
              });
}

/// Returns the full URI under which a certificate is listed. Returns the URI unchanged if it matches no certificate or
/// several that are not listed as one, as a certificate and its renewal are.
QByteArray listed(const QByteArray &cert)
{
    Objects found;
    if (cert.isEmpty() || find(cert, GNUTLS_PKCS11_OBJ_FLAG_CRT, found) != GNUTLS_E_SUCCESS || found.empty())
        return cert;
    const QByteArray full = uri(found.front());
    const bool isOne =
        std::all_of(found.begin(), found.end(), [&full](const Object &object) { return uri(object) == full; });
    return isOne ? full : cert;
}

/// Returns the first certificate with which the user may log in, or null.
Certificate usable(const Objects &found, const std::vector<Certificate> &others, const QString &user,
                   const ClientSettings &settings)
{
    for (const Object &object : found) {
        Certificate certificate = certificateOf(object);
        if (certificate && isTrusted(certificate, others, settings) && belongsTo(certificate, user, settings))
            return certificate;
    }
    return {};
}

/// Results besides GnuTLS's error codes, which are negative.
enum Obstacle { Refused = 1, Absent };

/// Whether the objects can be read on those of the tokens that the URI describes.
bool canRead(const QByteArray &cert, const QByteArrayList &tokens)
{
    const QByteArrayList said = attributes(tokenPart(cert));
    return std::all_of(tokens.begin(), tokens.end(), [&said](const QByteArray &token) {
        const QByteArrayList full = attributes(token);
        const bool isMeant = std::all_of(said.begin(), said.end(),
                                         [&full](const QByteArray &attribute) { return full.contains(attribute); });
        return !isMeant || isReadable(token);
    });
}

/// Checks the certificate before trying the PIN. Returns GnuTLS's error code or an Obstacle.
int validateOn(const QByteArray &cert, const QString &user, const QByteArray &pin, const ClientSettings &settings)
{
    Objects found;
    int error = find(cert, GNUTLS_PKCS11_OBJ_FLAG_CRT, found);
    if (error != GNUTLS_E_SUCCESS)
        return error;
    found.erase(std::remove_if(found.begin(), found.end(),
                               [](const Object &object) { return !requiresPin(tokenPart(uri(object))); }),
                found.end());
    if (found.empty()) {
        QByteArrayList tokens;
        error = presentTokens(tokens);
        if (error != GNUTLS_E_SUCCESS)
            return error;
        if (!isPresent(cert, tokens))
            return Absent;
        return canRead(cert, tokens) ? Refused : GNUTLS_E_PKCS11_ERROR;
    }

    // A URI that matches certificates for different keys is ambiguous. Certificates for the same key are
    // interchangeable, such as a certificate and its renewal.
    const QByteArray token = tokenPart(uri(found.front()));
    const QByteArray keyId = id(found.front());
    if (keyId.isEmpty() || !std::all_of(found.begin(), found.end(), [&](const Object &object) {
            return tokenPart(uri(object)) == token && id(object) == keyId;
        }))
        return Refused;
    Certificate certificate = usable(found, {}, user, settings);
    if (!certificate) {
        // It may need an authority on the token. Only then read all certificates there, which takes time.
        Objects onToken;
        error = find(token, GNUTLS_PKCS11_OBJ_FLAG_CRT, onToken);
        if (error != GNUTLS_E_SUCCESS)
            return error;
        std::vector<Certificate> others;
        for (const Object &other : onToken) {
            if (Certificate otherCertificate = certificateOf(other))
                others.push_back(std::move(otherCertificate));
        }
        certificate = usable(found, others, user, settings);
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

Tokens::Outcome Tokens::validate(const QByteArray &cert, const QString &user, const QByteArray &pin)
{
    const ClientSettings settings;
    const QByteArray defaultCert = CertDescription::removedFrom(settings.defaultCert());
    const QByteArray chosen = cert.isEmpty() ? defaultCert : CertDescription::removedFrom(cert);
    Outcome refused = chosen == defaultCert ? DefaultCertRefused : CertRefused;
    if (chosen.isEmpty() || !isAcceptable(chosen))
        return refused;
    int error = GNUTLS_E_SUCCESS;
    {
        const Modules modules(settings.module());
        if (!modules.loaded())
            return ModuleFailed;
        error = validateOn(chosen, user, pin, settings);
        if (error != GNUTLS_E_SUCCESS && listed(chosen) == listed(defaultCert))
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
