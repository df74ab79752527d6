// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>

/// A secret. The destructor overwrites it with zeros. Reserve its size before adding to it, because reallocation would
/// leave copies behind.
class SecretBytes
{
public:
    explicit SecretBytes(QByteArray bytes = {});
    ~SecretBytes();

    QByteArray &bytes() { return m_bytes; }
    const QByteArray &bytes() const { return m_bytes; }

private:
    QByteArray m_bytes;

    Q_DISABLE_COPY(SecretBytes)
};

/// Overwrites the stack below the caller, deeper than any library goes, and the registers through which memory is
/// copied. Signal handlers and the dynamic linker save registers on the stack, and those may hold parts of a secret.
void wipeStack();
