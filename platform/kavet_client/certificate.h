// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "gnutlshandle.h"

#include <QString>

#include <vector>

#include <gnutls/x509.h>

class ClientSettings;

using Certificate = GnutlsHandle<gnutls_x509_crt_t, gnutls_x509_crt_deinit>;

/// A certificate from its encoded form; null when it is none.
Certificate parseCertificate(const QByteArray &der);

/// Whether a certificate is that of a certificate authority.
bool isAuthority(const Certificate &certificate);

/// Whether a certificate is valid now, may be used to log in, and leads to a configured trust anchor without a revoked
/// certificate on the way. Authorities in between are looked for among `others`.
bool isTrusted(const Certificate &certificate, const std::vector<Certificate> &others, const ClientSettings &settings);

/// Whether a certificate names the user in one of the configured ways.
bool belongsTo(const Certificate &certificate, const QString &user, const ClientSettings &settings);
