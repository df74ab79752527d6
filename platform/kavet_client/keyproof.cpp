// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "keyproof.h"

#include <cstring>

#include <gnutls/abstract.h>
#include <gnutls/crypto.h>

namespace {

constexpr int challengeSize = 32; // bytes

/// The data of the PIN callback.
struct PinSource
{
    const QByteArray &pin;
    bool wasAsked = false;
};

int givePin(void *data, int attempt, const char *, const char *, unsigned, char *pin, size_t size)
{
    auto *source = static_cast<PinSource *>(data);
    // Retrying a wrong PIN would bring the token closer to blocking it.
    if (attempt > 0 || size_t(source->pin.size()) >= size)
        return GNUTLS_E_PKCS11_PIN_ERROR;
    source->wasAsked = true;
    std::memcpy(pin, source->pin.constData(), size_t(source->pin.size()) + 1);
    return GNUTLS_E_SUCCESS;
}

} // namespace

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

    const QByteArray keyUri = token + ";id=%" + keyId.toHex('%');
    PinSource source = {pin};
    gnutls_privkey_t privateKey = nullptr;
    gnutls_privkey_init(&privateKey);
    const GnutlsHandle<gnutls_privkey_t, gnutls_privkey_deinit> privateOwner(privateKey);
    gnutls_privkey_set_pin_function(privateKey, givePin, &source);
    error = gnutls_privkey_import_url(privateKey, keyUri.constData(), 0);
    if (error != GNUTLS_E_SUCCESS)
        return error;
    const int keyKind = gnutls_privkey_get_pk_algorithm(privateKey, nullptr);
    const int certifiedKind = gnutls_pubkey_get_pk_algorithm(publicKey, nullptr);
    // A token does not bind an RSA key to either padding scheme.
    if (keyKind != certifiedKind && !(keyKind == GNUTLS_PK_RSA && certifiedKind == GNUTLS_PK_RSA_PSS))
        return GNUTLS_E_PK_SIG_VERIFY_FAILED;
    gnutls_datum_t signature = {};
    error = gnutls_privkey_sign_data2(privateKey, algorithm, 0, &challengeDatum, &signature);
    if (error != GNUTLS_E_SUCCESS)
        return error;
    const std::unique_ptr<unsigned char, GnutlsFree> signatureOwner(signature.data);
    // A token that signs without the PIN proves nothing about the PIN.
    if (!source.wasAsked)
        return GNUTLS_E_PKCS11_PIN_ERROR;
    return gnutls_pubkey_verify_data2(publicKey, algorithm, 0, &challengeDatum, &signature);
}
