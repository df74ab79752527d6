// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "certificate.h"
#include "gnutlshandle.h"

#include <QByteArrayList>

#include <vector>

#include <gnutls/pkcs11.h>

/// The objects on the tokens, by URI (RFC 7512). Functions that return int return GnuTLS's error code.
namespace TokenObjects {

/// Loads a module, or the modules registered in the system if its path is empty, for the lifetime of the object. All
/// other functions need them.
class Modules
{
public:
    explicit Modules(const QString &module);
    ~Modules();

    /// Returns false when a module could not be loaded. The reason has been logged.
    bool loaded() const { return m_error == GNUTLS_E_SUCCESS; }

private:
    int m_error;

    Q_DISABLE_COPY(Modules)
};

using Object = GnutlsHandle<gnutls_pkcs11_obj_t, gnutls_pkcs11_obj_deinit>;
using Objects = std::vector<Object>;

/// Adds the objects on the present tokens that match a URI, filtered by `flags` (GNUTLS_PKCS11_OBJ_FLAG_...).
int find(const QByteArray &uri, unsigned flags, Objects &objects);

/// An object's CKA_ID; empty if it has none.
QByteArray id(const Object &object);
/// An object's URI.
QByteArray uri(const Object &object);
/// Returns the object as a certificate, or null when it is none.
Certificate certificateOf(const Object &object);

/// Whether a token is present and requires a PIN. Other tokens, such as the system's trust store, prove nothing about
/// their holder.
bool requiresPin(const QByteArray &token);
/// Adds the URIs of the present tokens that require a PIN.
int presentTokens(QByteArrayList &tokens);
/// Whether the token of a URI is present. Returns false if `tokens` is empty.
bool isPresent(const QByteArray &uri, const QByteArrayList &tokens);
/// Whether the objects on a present token can be read. find() finds none otherwise, because GnuTLS hides the error.
bool isReadable(const QByteArray &token);

/// The attributes of a URI. Separators within an attribute are percent-encoded.
QByteArrayList attributes(const QByteArray &uri);
/// The part of a URI that identifies the token rather than an object on it.
QByteArray tokenPart(const QByteArray &uri);

} // namespace TokenObjects
