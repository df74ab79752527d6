// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "busvalues.h"

#include "requestdata.h"

#include <QDBusVariant>
#include <QStringList>

#include <cerrno>
#include <cstring>

namespace {

constexpr char Bytes[] = "y";

/// A length in bytes that no text within the limit reaches, however many bytes a character takes.
constexpr std::size_t TooManyBytes = std::size_t(RequestData::TextLimit) * 4 + 1;

template <typename Type>
int readBasic(sd_bus_message *message, char type, QVariant &value)
{
    Type basic = {};
    const int result = sd_bus_message_read_basic(message, type, &basic);
    value = QVariant::fromValue(basic);
    return result;
}

int readText(sd_bus_message *message, QVariant &value)
{
    const char *text = nullptr;
    const int result = sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text);
    if (result <= 0)
        return result;
    if (std::strlen(text) >= TooManyBytes)
        return -E2BIG;
    value = QString::fromUtf8(text);
    return result;
}

int readTextList(sd_bus_message *message, QVariant &value)
{
    QStringList list;
    int result = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, BusValues::TextList);
    for (QVariant text; result >= 0 && (result = readText(message, text)) > 0;) {
        list << text.toString();
        if (list.size() > RequestData::EntryLimit)
            result = -E2BIG;
    }
    value = list;
    return result < 0 ? result : sd_bus_message_exit_container(message);
}

int readBytes(sd_bus_message *message, QVariant &value)
{
    const void *bytes = nullptr;
    size_t size = 0;
    const int result = sd_bus_message_read_array(message, SD_BUS_TYPE_BYTE, &bytes, &size);
    if (size >= TooManyBytes)
        return -E2BIG;
    value = QByteArray(static_cast<const char *>(bytes), int(size));
    return result;
}

int readValue(sd_bus_message *message, QVariant &value);

int readMap(sd_bus_message *message, QVariant &value)
{
    QVariantMap map;
    int result = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, BusValues::Map);
    while (result >= 0 && (result = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
        QVariant key;
        QVariant entry;
        if ((result = readText(message, key)) >= 0 && (result = readValue(message, entry)) >= 0)
            result = sd_bus_message_exit_container(message);
        if (entry.userType() == qMetaTypeId<QDBusVariant>())
            entry = qvariant_cast<QDBusVariant>(entry).variant();
        // Nothing stops a caller from repeating a key endlessly.
        if (result >= 0 && map.contains(key.toString()))
            result = -EINVAL;
        map.insert(key.toString(), entry);
        if (map.size() > RequestData::EntryLimit)
            result = -E2BIG;
    }
    value = map;
    return result < 0 ? result : sd_bus_message_exit_container(message);
}

int readVariant(sd_bus_message *message, const char *contents, QVariant &value)
{
    // No call takes these, and dictionaries in dictionaries could have any number of entries.
    if (std::strcmp(contents, "v") == 0 || std::strcmp(contents, "a{sv}") == 0)
        return -EINVAL;
    int result = sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, contents);
    QVariant inner;
    if (result >= 0)
        result = readValue(message, inner);
    if (result >= 0)
        result = sd_bus_message_exit_container(message);
    value = QVariant::fromValue(QDBusVariant(inner));
    return result;
}

int readValue(sd_bus_message *message, QVariant &value)
{
    char type = 0;
    const char *contents = nullptr;
    const int result = sd_bus_message_peek_type(message, &type, &contents);
    if (result <= 0)
        return result;
    switch (type) {
    case SD_BUS_TYPE_BOOLEAN: {
        int truth = 0; // sd-bus stores booleans as int.
        const int read = sd_bus_message_read_basic(message, type, &truth);
        value = truth != 0;
        return read;
    }
    case SD_BUS_TYPE_BYTE:
        return readBasic<uchar>(message, type, value);
    case SD_BUS_TYPE_INT16:
        return readBasic<short>(message, type, value);
    case SD_BUS_TYPE_UINT16:
        return readBasic<ushort>(message, type, value);
    case SD_BUS_TYPE_INT32:
        return readBasic<int>(message, type, value);
    case SD_BUS_TYPE_UINT32:
        return readBasic<uint>(message, type, value);
    case SD_BUS_TYPE_INT64:
        return readBasic<qlonglong>(message, type, value);
    case SD_BUS_TYPE_UINT64:
        return readBasic<qulonglong>(message, type, value);
    case SD_BUS_TYPE_DOUBLE:
        return readBasic<double>(message, type, value);
    case SD_BUS_TYPE_STRING:
        return readText(message, value);
    case SD_BUS_TYPE_VARIANT:
        return readVariant(message, contents, value);
    case SD_BUS_TYPE_ARRAY:
        if (std::strcmp(contents, BusValues::TextList) == 0)
            return readTextList(message, value);
        if (std::strcmp(contents, Bytes) == 0)
            return readBytes(message, value);
        if (std::strcmp(contents, BusValues::Map) == 0)
            return readMap(message, value);
        break;
    default:
        break;
    }
    return -EINVAL;
}

} // namespace

int BusValues::read(sd_bus_message *message, QVariantList &arguments)
{
    int result = 0;
    while ((result = sd_bus_message_at_end(message, true)) == 0) {
        QVariant value;
        result = readValue(message, value);
        arguments << value;
        if (result < 0)
            return result;
    }
    return result < 0 ? result : 0;
}
