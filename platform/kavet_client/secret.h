// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>

/// A secret as bytes, overwritten with zeros at the end of its life. Reserve its size before adding to it: growing
/// would leave copies behind.
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

/// Overwrites what functions that have returned left on the stack below, as far down as any library goes. Registers
/// that held part of a secret are saved there for signal handlers and by the dynamic linker.
void wipeStack();
