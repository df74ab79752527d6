// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "tokens.h"

#include "certificate.h"
#include "clientsettings.h"

#include <QLoggingCategory>
#include <QSet>

#include <algorithm>
#include <cstring>

#include <gnutls/abstract.h>
#include <gnutls/crypto.h>
#include <gnutls/pkcs11.h>

namespace {

using Object = GnutlsHandle<gnutls_pkcs11_obj_t, gnutls_pkcs11_obj_deinit>;
using Objects = std::vector<Object>;

const QByteArray scheme = QByteArrayLiteral("pkcs11:");
constexpr int challengeSize = 32;

/// The modules, loaded for the life of the object.
class Modules
{
public:
    explicit Modules(const ClientSettings &settings)
    {
        // Without a path, those that the system has registered.
        m_error = gnutls_pkcs11_init(settings.module().isEmpty() ? GNUTLS_PKCS11_FLAG_AUTO : GNUTLS_PKCS11_FLAG_MANUAL,
                                     nullptr);
        if (m_error == GNUTLS_E_SUCCESS && !settings.module().isEmpty())
            m_error = gnutls_pkcs11_add_provider(settings.module().toLocal8Bit().constData(), nullptr);
        if (m_error != GNUTLS_E_SUCCESS)
            qWarning("Cannot load the token module: %s", gnutls_strerror(m_error));
    }
    ~Modules() { gnutls_pkcs11_deinit(); }

    bool loaded() const { return m_error == GNUTLS_E_SUCCESS; }

private:
    int m_error;

    Q_DISABLE_COPY(Modules)
};

/// What a URI stands for on the present tokens, limited by `flags`; the library's error code, if any.
int find(const QByteArray &uri, unsigned flags, Objects &objects)
{
    gnutls_pkcs11_obj_t *list = nullptr;
    unsigned count = 0;
    const int error = gnutls_pkcs11_obj_list_import_url4(&list, &count, uri.constData(), flags);
    if (error == GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE)
        return GNUTLS_E_SUCCESS;
    if (error != GNUTLS_E_SUCCESS)
        return error;
    for (unsigned i = 0; i < count; ++i)
        objects.emplace_back(list[i]);
    gnutls_free(list);
    return GNUTLS_E_SUCCESS;
}

QByteArray info(const Object &object, gnutls_pkcs11_obj_info_t type)
{
    size_t size = 0;
    gnutls_pkcs11_obj_get_info(object.get(), type, nullptr, &size);
    QByteArray value(int(size), '\0');
    if (gnutls_pkcs11_obj_get_info(object.get(), type, value.data(), &size) != GNUTLS_E_SUCCESS)
        return {};
    value.truncate(int(size));
    return value;
}

QByteArray id(const Object &object)
{
    return info(object, GNUTLS_PKCS11_OBJ_ID);
}

QByteArray uri(const Object &object)
{
    char *text = nullptr;
    if (gnutls_pkcs11_obj_export_url(object.get(), GNUTLS_PKCS11_URL_GENERIC, &text) != GNUTLS_E_SUCCESS)
        return {};
    const std::unique_ptr<char, GnutlsFree> owner(text);
    return text;
}

Certificate certificateOf(const Object &object)
{
    gnutls_datum_t der = {};
    if (gnutls_pkcs11_obj_get_type(object.get()) != GNUTLS_PKCS11_OBJ_X509_CRT
        || gnutls_pkcs11_obj_export2(object.get(), &der) != GNUTLS_E_SUCCESS)
        return {};
    return parseCertificate(takeBytes(der));
}

/// The URIs of the tokens that are present and ask for a PIN. Others prove nothing about who holds them; the system's
/// trusted certificates come as such a token.
int presentTokens(QByteArrayList &tokens)
{
    constexpr unsigned wanted = GNUTLS_PKCS11_TOKEN_INITIALIZED | GNUTLS_PKCS11_TOKEN_LOGIN_REQUIRED;
    for (unsigned i = 0;; ++i) {
        char *text = nullptr;
        const int error = gnutls_pkcs11_token_get_url(i, GNUTLS_PKCS11_URL_GENERIC, &text);
        if (error == GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE)
            return GNUTLS_E_SUCCESS;
        if (error != GNUTLS_E_SUCCESS)
            return error;
        const std::unique_ptr<char, GnutlsFree> token(text);
        unsigned flags = 0;
        if (gnutls_pkcs11_token_get_flags(text, &flags) == GNUTLS_E_SUCCESS && (flags & wanted) == wanted)
            tokens << text;
    }
}

/// What a URI says, one by one; within each, what would separate them is encoded.
QByteArrayList attributes(const QByteArray &uri)
{
    return uri.mid(scheme.size()).split(';');
}

/// The URI without what tells a token's objects apart.
QByteArray tokenPart(const QByteArray &uri)
{
    QByteArrayList kept = attributes(uri);
    kept.erase(std::remove_if(kept.begin(), kept.end(),
                              [](const QByteArray &attribute) {
                                  return attribute.startsWith("object=") || attribute.startsWith("id=")
                                         || attribute.startsWith("type=");
                              }),
               kept.end());
    return scheme + kept.join(';');
}

bool isPresent(const QByteArray &uri, const QByteArrayList &tokens)
{
    unsigned flags = 0;
    return !tokens.isEmpty() && gnutls_pkcs11_token_get_flags(tokenPart(uri).constData(), &flags) == GNUTLS_E_SUCCESS;
}

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
    for (const Object &object : certificates) {
        const Certificate certificate = certificateOf(object);
        if (!certificate || id(object).isEmpty())
            continue;
        // A token that shows no key at all hides them, and then any certificate but an authority's may have one.
        const bool hasKey = keys.empty() ? !isAuthority(certificate) : keyIds.contains(id(object));
        // Certificates for one key may have one label too.
        if (hasKey && !certs.contains(uri(object)))
            certs << uri(object);
    }
    return GNUTLS_E_SUCCESS;
}

/// What the library is to ask for the PIN.
struct PinSource
{
    const QByteArray &pin;
    bool wasAsked = false;
};

int givePin(void *data, int attempt, const char *, const char *, unsigned, char *pin, size_t size)
{
    auto *source = static_cast<PinSource *>(data);
    // A second try with the same PIN would only bring the token nearer to blocking it.
    if (attempt > 0 || size_t(source->pin.size()) >= size)
        return GNUTLS_E_PKCS11_PIN_ERROR;
    source->wasAsked = true;
    std::memcpy(pin, source->pin.constData(), size_t(source->pin.size()) + 1);
    return GNUTLS_E_SUCCESS;
}

/// Has the token sign a fresh challenge with the key that stands beside the certificate; the library's error code.
int proveKey(const QByteArray &token, const QByteArray &keyId, const Certificate &certificate, const QByteArray &pin)
{
    gnutls_pubkey_t publicKey = nullptr;
    gnutls_pubkey_init(&publicKey);
    const GnutlsHandle<gnutls_pubkey_t, gnutls_pubkey_deinit> publicOwner(publicKey);
    gnutls_digest_algorithm_t digest = GNUTLS_DIG_UNKNOWN;
    int error = gnutls_pubkey_import_x509(publicKey, certificate.get(), 0);
    if (error == GNUTLS_E_SUCCESS)
        error = gnutls_pubkey_get_preferred_hash_algorithm(publicKey, &digest, nullptr);
    if (error != GNUTLS_E_SUCCESS)
        return error;
    const auto algorithm = gnutls_pk_to_sign(
        static_cast<gnutls_pk_algorithm_t>(gnutls_pubkey_get_pk_algorithm(publicKey, nullptr)), digest);

    QByteArray challenge(challengeSize, '\0');
    error = gnutls_rnd(GNUTLS_RND_RANDOM, challenge.data(), size_t(challenge.size()));
    if (error != GNUTLS_E_SUCCESS)
        return error;
    const gnutls_datum_t challengeDatum = asDatum(challenge);

    const QByteArray keyUri = token + ";id=%" + keyId.toHex('%') + ";type=private";
    PinSource source = {pin};
    gnutls_privkey_t privateKey = nullptr;
    gnutls_privkey_init(&privateKey);
    const GnutlsHandle<gnutls_privkey_t, gnutls_privkey_deinit> privateOwner(privateKey);
    gnutls_privkey_set_pin_function(privateKey, givePin, &source);
    error = gnutls_privkey_import_url(privateKey, keyUri.constData(), GNUTLS_PKCS11_OBJ_FLAG_LOGIN);
    if (error != GNUTLS_E_SUCCESS)
        return error;
    const int keyKind = gnutls_privkey_get_pk_algorithm(privateKey, nullptr);
    const int certifiedKind = gnutls_pubkey_get_pk_algorithm(publicKey, nullptr);
    // For a token, an RSA key is not bound to either kind of padding.
    if (keyKind != certifiedKind && !(keyKind == GNUTLS_PK_RSA && certifiedKind == GNUTLS_PK_RSA_PSS))
        return GNUTLS_E_PK_SIG_VERIFY_FAILED;
    gnutls_datum_t signature = {};
    error = gnutls_privkey_sign_data2(privateKey, algorithm, 0, &challengeDatum, &signature);
    if (error != GNUTLS_E_SUCCESS)
        return error;
    const std::unique_ptr<unsigned char, GnutlsFree> signatureOwner(signature.data);
    // A token that signs for anybody who holds it proves nothing about the PIN.
    if (!source.wasAsked)
        return GNUTLS_E_PKCS11_PIN_ERROR;
    return gnutls_pubkey_verify_data2(publicKey, algorithm, 0, &challengeDatum, &signature);
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
