// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QString>

#include <cstring>

/// Overwrites secrets with zeros in place. This deliberately bypasses implicit sharing, so that every copy that shares
/// the memory loses the secret too; data() would detach and wipe a fresh copy instead.
namespace Wipe {

inline void memory(const void *data, std::size_t size)
{
    explicit_bzero(const_cast<void *>(data), size); // The only way past implicit sharing.
}

inline void text(const QString &secret)
{
    memory(secret.constData(), std::size_t(secret.size()) * sizeof(QChar));
}

inline void bytes(const QByteArray &secret)
{
    memory(secret.constData(), std::size_t(secret.size()));
}

} // namespace Wipe
