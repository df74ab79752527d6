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

/// What the protocol allows a list to have; a token may hold more.
constexpr int maximumCerts = 1000;
constexpr int maximumListSize = 256 * 1024; // Bytes.

/// Why a call went wrong that should not have: the token may have gone meanwhile, which only modules loaded anew are
/// sure to notice.
Tokens::Outcome failure(const QByteArray &uri, int error, const ClientSettings &settings)
{
    qWarning("The token module failed: %s", gnutls_strerror(error));
    const Modules modules(settings);
    QByteArrayList tokens;
    return !modules.loaded() || presentTokens(tokens) != GNUTLS_E_SUCCESS || isPresent(uri, tokens)
               ? Tokens::ModuleFailed
               : Tokens::NoToken;
}

/// The URIs of a token's certificates with a private key, which may be invisible without the PIN.
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
        // A token that shows no key at all hides them, and then any certificate but an authority's may have one.
        const bool hasKey = keys.empty() ? !isAuthority(certificate) : keyIds.contains(id(object));
        const QByteArray cert = uri(object);
        // Certificates for one key may have one label too.
        if (hasKey && !known.contains(cert))
            certs << cert;
        known << cert;
    }
    return GNUTLS_E_SUCCESS;
}

/// Whether a URI may stand for a certificate, and brings nothing else, as the PIN or the place of one.
bool isAcceptable(const QByteArray &cert)
{
    const QByteArrayList said = attributes(cert);
    return !cert.contains('?') && std::none_of(said.begin(), said.end(), [](const QByteArray &attribute) {
        return attribute.startsWith("pin-") || (attribute.startsWith("type=") && attribute != "type=cert");
    });
}

/// How a certificate is listed for which a URI stands that may say less; the URI as it is, if it stands for none or for
/// several.
QByteArray listed(const QByteArray &cert)
{
    Objects found;
    return !cert.isEmpty() && find(cert, GNUTLS_PKCS11_OBJ_FLAG_CRT, found) == GNUTLS_E_SUCCESS && found.size() == 1
               ? uri(found.front())
               : cert;
}

/// Leaves out the last of a list that is too long.
void limit(QByteArrayList &certs)
{
    int count = 0;
    int size = 0;
    while (count < qMin(certs.size(), maximumCerts) && (size += certs.at(count).size()) <= maximumListSize)
        ++count;
    if (count < certs.size())
        qWarning("Of %d certificates %d are listed; more would not be taken", certs.size(), count);
    certs.erase(certs.begin() + count, certs.end());
}

/// Besides the library's error codes, which are negative.
enum Obstacle { Refused = 1, Absent };

/// Checks the certificate, and only then tries the PIN. The library's error code, or an Obstacle.
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

    // A URI of certificates for several keys leaves open which is meant. Those for one key are as good as each other,
    // as a certificate and its successor.
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
    // The try just made may have been the last.
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
    case GNUTLS_E_PARSING_ERROR: // No such URI.
    case GNUTLS_E_PKCS11_PIN_EXPIRED:
    case GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE: // No such key.
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
