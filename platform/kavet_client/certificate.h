// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "gnutlshandle.h"

#include <QString>

#include <vector>

#include <gnutls/x509.h>

class ClientSettings;

using Certificate = GnutlsHandle<gnutls_x509_crt_t, gnutls_x509_crt_deinit>;

/// Parses a DER-encoded certificate. Returns null on error.
Certificate parseCertificate(QByteArray der);

/// Whether this is the certificate of a certificate authority.
bool isAuthority(const Certificate &certificate);

/// Whether a certificate is currently valid, may be used to log in, and chains to a configured trust anchor without a
/// revoked certificate in the chain. Looks for intermediate authorities among `others`.
bool isTrusted(const Certificate &certificate, const std::vector<Certificate> &others, const ClientSettings &settings);

/// Whether a certificate names the user through one of the configured mappings.
bool belongsTo(const Certificate &certificate, const QString &user, const ClientSettings &settings);
