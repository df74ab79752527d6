// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "auth/messagegate.h"

#include <QtEndian>

#include <algorithm>
#include <limits>

namespace {

constexpr int maximumMessages = 16; ///< For one request, which has one reply.
constexpr int maximumShort = 4 * 1024; ///< Bytes of a message of any type, and of any message's header.
constexpr int maximumText = std::numeric_limits<int>::max(); ///< LinkGuard's limit applies.
constexpr int maximumTextList = 272 * 1024; ///< Bytes; enough for the longest list of certificates.

// A header has a fixed part and then fields, each aligned to eight bytes.
constexpr int bodySizeAt = 4;
constexpr int fieldsSizeAt = 12;
constexpr int fixedSize = 16;
constexpr int alignment = 8;
constexpr char littleEndian = 'l';

/// The number of bytes that the message may have, by the type of its body.
int maximumSize(const QByteArray &header)
{
    static const QByteArray signatureField("\x08\x01g\0", 4);
    static const QByteArray textSignature("\1s\0", 3);
    static const QByteArray textListSignature("\2as\0", 4);
    int maximum = 0;
    for (int position = fixedSize; position < header.size(); position += alignment) {
        const QByteArray field = header.mid(position);
        if (!field.startsWith(signatureField))
            continue;
        const QByteArray signature = field.mid(signatureField.size());
        int allowed = maximumShort;
        if (signature.startsWith(textSignature))
            allowed = maximumText;
        else if (signature.startsWith(textListSignature))
            allowed = maximumTextList;
        // Another field's value may look like a signature field, so the lowest limit found applies.
        maximum = maximum == 0 ? allowed : std::min(maximum, allowed);
    }
    return std::max(maximum, maximumShort);
}

} // namespace

void MessageGate::reset()
{
    m_header.clear();
    m_bodyLeft = 0;
    m_messages = 0;
}

bool MessageGate::admits(const char *bytes, int size)
{
    for (const char *const end = bytes + size; bytes < end;) {
        const int available = int(end - bytes);
        if (m_bodyLeft > 0) {
            const quint32 taken = std::min(m_bodyLeft, quint32(available));
            m_bodyLeft -= taken;
            bytes += taken;
            continue;
        }
        const int taken = std::min(headerSize() - m_header.size(), available);
        m_header.append(bytes, taken);
        bytes += taken;
        if (m_header.size() < fixedSize)
            continue;
        if (numberAt(fieldsSizeAt) > maximumShort - fixedSize)
            return false;
        if (m_header.size() == headerSize()) {
            ++m_messages;
            if (!admitsMessage())
                return false;
            m_bodyLeft = numberAt(bodySizeAt);
            m_header.clear();
        }
    }
    return true;
}

int MessageGate::headerSize() const
{
    if (m_header.size() < fixedSize)
        return fixedSize;
    const int fieldsSize = int(numberAt(fieldsSizeAt));
    return fixedSize + (fieldsSize + alignment - 1) / alignment * alignment;
}

bool MessageGate::admitsMessage() const
{
    const qint64 size = m_header.size() + qint64(numberAt(bodySizeAt));
    return m_messages <= maximumMessages && size <= maximumSize(m_header);
}

quint32 MessageGate::numberAt(int position) const
{
    const char *const bytes = m_header.constData() + position;
    return m_header.at(0) == littleEndian ? qFromLittleEndian<quint32>(reinterpret_cast<const uchar *>(bytes))
                                          : qFromBigEndian<quint32>(reinterpret_cast<const uchar *>(bytes));
}
