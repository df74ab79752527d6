// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <gnutls/gnutls.h>

#include <QByteArray>
#include <memory>
#include <type_traits>

/// Frees what the library allocated.
struct GnutlsFree
{
    void operator()(void *memory) const { gnutls_free(memory); }
};

/// An object of the library with the function that ends its life.
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

/// Copies what the library allocated, and frees it.
inline QByteArray takeBytes(gnutls_datum_t &datum)
{
    QByteArray bytes(reinterpret_cast<const char *>(datum.data), int(datum.size));
    gnutls_free(datum.data);
    datum.data = nullptr;
    return bytes;
}

inline gnutls_datum_t asDatum(const QByteArray &bytes)
{
    return {reinterpret_cast<unsigned char *>(const_cast<char *>(bytes.constData())), unsigned(bytes.size())};
}
