// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <gnutls/gnutls.h>

#include <QByteArray>
#include <memory>
#include <type_traits>

/// Frees memory that GnuTLS allocated.
struct GnutlsFree
{
    void operator()(void *memory) const { gnutls_free(memory); }
};

/// Owns a GnuTLS object and releases it with its own function.
template <auto deinit>
struct GnutlsDeinit
{
    template <typename T>
    void operator()(T *object) const
    {
        deinit(object);
    }
};
template <typename T, auto deinit>
using GnutlsHandle = std::unique_ptr<std::remove_pointer_t<T>, GnutlsDeinit<deinit>>;

/// Copies memory that GnuTLS allocated, and frees it.
inline QByteArray takeBytes(gnutls_datum_t &datum)
{
    QByteArray bytes(reinterpret_cast<const char *>(datum.data), int(datum.size));
    gnutls_free(datum.data);
    return bytes;
}

/// A view of `bytes`. GnuTLS only reads its inputs, but its type has no const.
inline gnutls_datum_t asDatum(QByteArray &bytes)
{
    return {reinterpret_cast<unsigned char *>(bytes.data()), unsigned(bytes.size())};
}
