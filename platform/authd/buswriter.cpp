// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "busvalues.h"

#include <QDBusVariant>
#include <QStringList>

#include <cerrno>

namespace {

/// The text in UTF-8. Replaces Unicode noncharacters, which sd-bus rejects.
QByteArray toUtf8(QString value)
{
    for (int i = 0; i < value.size(); ++i) {
        const QChar character = value.at(i);
        const bool isPair = character.isHighSurrogate() && i + 1 < value.size() && value.at(i + 1).isLowSurrogate();
        const uint code = isPair ? QChar::surrogateToUcs4(character, value.at(i + 1)) : character.unicode();
        if (QChar::isNonCharacter(code)) {
            value[i] = QChar::ReplacementCharacter;
            if (isPair)
                value[i + 1] = QChar::ReplacementCharacter;
        } else if (isPair) {
            ++i;
        }
    }
    return value.toUtf8();
}

int appendValue(sd_bus_message *message, const QVariant &value);

int appendMap(sd_bus_message *message, const QVariantMap &map)
{
    int result = sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, BusValues::Map);
    for (auto entry = map.cbegin(); result >= 0 && entry != map.cend(); ++entry) {
        result = sd_bus_message_open_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv");
        if (result >= 0)
            result = sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, toUtf8(entry.key()).constData());
        if (result >= 0)
            result = appendValue(message, QVariant::fromValue(QDBusVariant(entry.value())));
        if (result >= 0)
            result = sd_bus_message_close_container(message);
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
}

int appendTextList(sd_bus_message *message, const QStringList &list)
{
    int result = sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, BusValues::TextList);
    for (const QString &entry : list) {
        if (result >= 0)
            result = sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, toUtf8(entry).constData());
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
}

/// The type's D-Bus signature, or null for a type that cannot be written.
const char *signatureOf(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
        return "b";
    case QMetaType::UChar:
        return "y";
    case QMetaType::Short:
        return "n";
    case QMetaType::UShort:
        return "q";
    case QMetaType::Int:
        return "i";
    case QMetaType::UInt:
        return "u";
    case QMetaType::LongLong:
    case QMetaType::Long:
        return "x";
    case QMetaType::ULongLong:
    case QMetaType::ULong:
        return "t";
    case QMetaType::Double:
        return "d";
    case QMetaType::QString:
        return "s";
    case QMetaType::QStringList:
        return "as";
    case QMetaType::QByteArray:
        return "ay";
    case QMetaType::QVariantMap:
        return "a{sv}";
    default:
        return nullptr;
    }
}

template <typename Type>
int appendBasic(sd_bus_message *message, char type, Type value)
{
    return sd_bus_message_append_basic(message, type, &value);
}

int appendValue(sd_bus_message *message, const QVariant &value)
{
    if (value.userType() == qMetaTypeId<QDBusVariant>()) {
        const QVariant inner = qvariant_cast<QDBusVariant>(value).variant();
        const char *signature = signatureOf(inner);
        int result = signature ? sd_bus_message_open_container(message, SD_BUS_TYPE_VARIANT, signature) : -EINVAL;
        if (result >= 0)
            result = appendValue(message, inner);
        return result < 0 ? result : sd_bus_message_close_container(message);
    }
    const char *signature = signatureOf(value);
    if (!signature)
        return -EINVAL;
    switch (*signature) {
    case 'b':
        return appendBasic(message, 'b', int(value.toBool()));
    case 'y':
        return appendBasic(message, 'y', qvariant_cast<uchar>(value));
    case 'n':
        return appendBasic(message, 'n', qvariant_cast<short>(value));
    case 'q':
        return appendBasic(message, 'q', qvariant_cast<ushort>(value));
    case 'i':
        return appendBasic(message, 'i', value.toInt());
    case 'u':
        return appendBasic(message, 'u', value.toUInt());
    case 'x':
        return appendBasic(message, 'x', value.toLongLong());
    case 't':
        return appendBasic(message, 't', value.toULongLong());
    case 'd':
        return appendBasic(message, 'd', value.toDouble());
    case 's':
        return sd_bus_message_append_basic(message, 's', toUtf8(value.toString()).constData());
    default:
        break;
    }
    if (value.userType() == QMetaType::QStringList)
        return appendTextList(message, value.toStringList());
    if (value.userType() == QMetaType::QVariantMap)
        return appendMap(message, value.toMap());
    const QByteArray bytes = value.toByteArray();
    return sd_bus_message_append_array(message, 'y', bytes.constData(), size_t(bytes.size()));
}

} // namespace

bool BusValues::isWritable(const QVariant &value)
{
    return signatureOf(value) != nullptr;
}

int BusValues::append(sd_bus_message *message, const QVariantList &values)
{
    for (const QVariant &value : values) {
        const int result = appendValue(message, value);
        if (result < 0)
            return result;
    }
    return 0;
}
