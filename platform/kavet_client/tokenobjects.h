// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "certificate.h"
#include "gnutlshandle.h"

#include <QByteArrayList>

#include <vector>

#include <gnutls/pkcs11.h>

class ClientSettings;

/// What is on the tokens, by URI (RFC 7512). Functions that return int return the library's error code.
namespace TokenObjects {

/// The modules that the settings name, loaded for the life of the object. Everything below needs them.
class Modules
{
public:
    explicit Modules(const ClientSettings &settings);
    ~Modules();

    /// False when a module cannot be loaded; the reason has been logged.
    bool loaded() const { return m_error == GNUTLS_E_SUCCESS; }

private:
    int m_error;

    Q_DISABLE_COPY(Modules)
};

using Object = GnutlsHandle<gnutls_pkcs11_obj_t, gnutls_pkcs11_obj_deinit>;
using Objects = std::vector<Object>;

/// Adds what a URI stands for on the present tokens, limited by `flags` (GNUTLS_PKCS11_OBJ_FLAG_...).
int find(const QByteArray &uri, unsigned flags, Objects &objects);

/// An object's CKA_ID; empty when it has none.
QByteArray id(const Object &object);
/// An object's URI.
QByteArray uri(const Object &object);
/// The certificate that an object is; null when it is none.
Certificate certificateOf(const Object &object);

/// Adds the URIs of the tokens that are present and ask for a PIN. Others prove nothing about who holds them; the
/// system's trusted certificates come as such a token.
int presentTokens(QByteArrayList &tokens);
/// Whether the token that a URI names is present, and there are `tokens` at all.
bool isPresent(const QByteArray &uri, const QByteArrayList &tokens);

/// What a URI says, one by one; within each, what would separate them is encoded.
QByteArrayList attributes(const QByteArray &uri);
/// The URI without what tells a token's objects apart.
QByteArray tokenPart(const QByteArray &uri);

} // namespace TokenObjects
