// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QString>

/// Overwrites a text's memory with zeros and empties it. Copies that share the memory, as those that a D-Bus message
/// holds of its arguments, read as zeros from then on.
void wipe(const QString &text);
void wipe(QByteArray &bytes);

/// A secret as bytes, wiped at the end of its life.
class SecretBytes
{
public:
    explicit SecretBytes(QByteArray bytes = {})
        : m_bytes(std::move(bytes))
    {
    }
    ~SecretBytes() { wipe(m_bytes); }

    QByteArray &bytes() { return m_bytes; }
    const QByteArray &bytes() const { return m_bytes; }

private:
    QByteArray m_bytes;

    Q_DISABLE_COPY(SecretBytes)
};

/// The copies of a secret that the D-Bus library has of what it received, and that it neither wipes nor hands out.
namespace ReceivedCopies {

/// To be called before the process is made undumpable, from when on it could not open its own memory.
void prepare();
/// Overwrites the copies. Nobody needs them any more once the call that brought the secret has been delivered.
void wipe(const SecretBytes &secret);

} // namespace ReceivedCopies
