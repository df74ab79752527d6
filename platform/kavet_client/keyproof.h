// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "certificate.h"

#include <QByteArray>

/// Has a token sign a fresh challenge with the private key that stands beside a certificate, having been given the PIN,
/// and verifies the signature with the certificate's public key. `token` is the token's URI, `keyId` the CKA_ID of
/// both. Returns the library's error code; GNUTLS_E_PKCS11_PIN_ERROR also when the token signs without the PIN.
int proveKey(const QByteArray &token, const QByteArray &keyId, const Certificate &certificate, const QByteArray &pin);
