// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>

#include <FuzzedDataProvider.h>

/// Makes D-Bus messages, in little-endian form, of values that the fuzzer chooses.
namespace DBusMessage {

enum Type : char { Call = 1, Reply = 2, Error = 3, Signal = 4 };
enum Field : char { Path = 1, Interface = 2, Member = 3, ErrorName = 4, ReplySerial = 5, Signature = 8 };

constexpr int fixedSize = 16;

inline void align(QByteArray &bytes, int alignment)
{
    bytes.append((alignment - bytes.size() % alignment) % alignment, '\0');
}

template <typename Number>
void append(QByteArray &bytes, Number number)
{
    align(bytes, sizeof number);
    bytes.append(reinterpret_cast<const char *>(&number), sizeof number);
}

inline void appendText(QByteArray &bytes, const QByteArray &text)
{
    append(bytes, quint32(text.size()));
    bytes.append(text).append('\0');
}

inline void appendSignature(QByteArray &bytes, const QByteArray &signature)
{
    bytes.append(char(signature.size())).append(signature).append('\0');
}

inline QByteArray anyText(FuzzedDataProvider &source)
{
    return QByteArray::fromStdString(source.ConsumeRandomLengthString(64));
}

/// Skips the single complete type that begins at `type`.
inline const char *skipped(const char *type)
{
    int depth = 0;
    do {
        depth += (*type == '(' || *type == '{') - (*type == ')' || *type == '}');
    } while (*type++ == 'a' || depth > 0);
    return type;
}

inline int alignmentOf(char type)
{
    switch (type) {
    case 'y':
    case 'g':
    case 'v':
        return 1;
    case 'n':
    case 'q':
        return 2;
    case 'x':
    case 't':
    case 'd':
    case '(':
    case '{':
        return 8;
    default:
        return 4;
    }
}

/// Appends a value of the type that begins at `type`.
inline void appendValue(QByteArray &bytes, const char *type, FuzzedDataProvider &source)
{
    align(bytes, alignmentOf(*type));
    switch (*type) {
    case 'b':
        append(bytes, quint32(source.ConsumeBool()));
        break;
    case 's':
        appendText(bytes, anyText(source));
        break;
    case 'o':
        appendText(bytes, anyText(source).prepend('/'));
        break;
    case 'g':
        appendSignature(bytes, anyText(source));
        break;
    case 'v': {
        const char inner[] = {source.PickValueInArray({'s', 'i', 'y', 'd', 'g', 'v'}), '\0'};
        appendSignature(bytes, inner);
        appendValue(bytes, source.remaining_bytes() > 0 ? inner : "y", source);
        break;
    }
    case 'a': {
        const int sizeAt = bytes.size();
        append(bytes, quint32(0));
        align(bytes, alignmentOf(type[1]));
        const int begin = bytes.size();
        while (source.remaining_bytes() > 0 && source.ConsumeBool())
            appendValue(bytes, type + 1, source);
        const quint32 size = quint32(bytes.size() - begin);
        bytes.replace(sizeAt, sizeof size, reinterpret_cast<const char *>(&size), sizeof size);
        break;
    }
    case '(':
    case '{':
        for (++type; *type != ')' && *type != '}'; type = skipped(type))
            appendValue(bytes, type, source);
        break;
    default:
        for (int left = type[0] == 'i' || type[0] == 'u' || type[0] == 'h' ? 4 : alignmentOf(*type); left > 0; --left)
            bytes.append(source.ConsumeIntegral<char>());
    }
}

/// Adds a header field whose value is a string, or a number for ReplySerial.
inline void appendField(QByteArray &fields, Field field, const QByteArray &value)
{
    align(fields, 8);
    fields.append(field);
    const char type = field == Path ? 'o' : field == Signature ? 'g' : 's';
    appendSignature(fields, QByteArray(1, type));
    if (field == Signature)
        appendSignature(fields, value);
    else
        appendText(fields, value);
}

inline void appendReplySerial(QByteArray &fields, quint32 serial)
{
    align(fields, 8);
    fields.append(ReplySerial);
    appendSignature(fields, "u");
    append(fields, serial);
}

inline QByteArray message(Type type, const QByteArray &fields, const QByteArray &body)
{
    QByteArray bytes("l");
    bytes.append(type).append('\1').append('\1'); // Expects no reply; version 1.
    append(bytes, quint32(body.size()));
    append(bytes, quint32(1)); // The serial number.
    append(bytes, quint32(fields.size()));
    bytes.append(fields);
    align(bytes, 8);
    return bytes.append(body);
}

} // namespace DBusMessage
