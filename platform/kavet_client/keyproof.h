// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "certificate.h"

#include <QByteArray>

/// Asks a token to sign a random challenge with the private key of a certificate, using the PIN, and verifies the
/// signature with the certificate's public key. `token` is the token's URI, `keyId` the CKA_ID of certificate and key.
/// Returns GnuTLS's error code. Returns GNUTLS_E_PKCS11_PIN_ERROR also if the token signs without asking for the PIN.
int proveKey(const QByteArray &token, const QByteArray &keyId, const Certificate &certificate, const QByteArray &pin);
