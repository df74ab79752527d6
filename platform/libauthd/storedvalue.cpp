// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "storedvalue.h"

#include <QStringList>

#include <algorithm>
#include <glib.h>

using StoredValue::toUtf8;

namespace {

/// Returns a floating reference, or null when the type cannot be stored.
GVariant *toGVariant(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
        return g_variant_new_boolean(value.toBool());
    case QMetaType::Int:
        return g_variant_new_int32(value.toInt());
    case QMetaType::UInt:
        return g_variant_new_uint32(value.toUInt());
    case QMetaType::LongLong:
        return g_variant_new_int64(value.toLongLong());
    case QMetaType::ULongLong:
        return g_variant_new_uint64(value.toULongLong());
    case QMetaType::Double:
        return g_variant_new_double(value.toDouble());
    case QMetaType::QString: {
        const std::optional<std::string> text = toUtf8(value.toString());
        return text ? g_variant_new_string(text->c_str()) : nullptr;
    }
    case QMetaType::QStringList: {
        g_auto(GVariantBuilder) builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE_STRING_ARRAY);
        const QStringList list = value.toStringList();
        for (const QString &item : list) {
            const std::optional<std::string> text = toUtf8(item);
            if (!text)
                return nullptr;
            g_variant_builder_add(&builder, "s", text->c_str());
        }
        return g_variant_builder_end(&builder);
    }
    case QMetaType::QByteArray: {
        const QByteArray bytes = value.toByteArray();
        return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.constData(), static_cast<gsize>(bytes.size()), 1);
    }
    default:
        return nullptr;
    }
}

} // namespace

std::optional<std::string> StoredValue::toUtf8(const QString &text)
{
    glong read = 0;
    g_autofree char *utf8 = g_utf16_to_utf8(text.utf16(), text.size(), &read, nullptr, nullptr);
    if (!utf8 || read != text.size())
        return std::nullopt;
    return utf8;
}

QString StoredValue::fromUtf8(const char *utf8)
{
    glong size = 0;
    g_autofree gunichar2 *utf16 = g_utf8_to_utf16(utf8, -1, nullptr, &size, nullptr);
    return QString(reinterpret_cast<const QChar *>(utf16), static_cast<int>(size));
}

std::optional<std::string> StoredValue::toStored(const QVariant &value)
{
    GVariant *variant = toGVariant(value);
    if (!variant)
        return std::nullopt;
    g_autoptr(GVariant) owned = g_variant_ref_sink(variant);
    g_autofree char *text = g_variant_print(owned, TRUE);
    // GVariant's parser rejects subnormal numbers.
    g_autoptr(GVariant) back = g_variant_parse(nullptr, text, nullptr, nullptr, nullptr);
    if (!back)
        return std::nullopt;
    return text;
}

QVariant StoredValue::fromStored(const char *text)
{
    g_autoptr(GVariant) value = g_variant_parse(nullptr, text, nullptr, nullptr, nullptr);
    if (!value)
        return QVariant();
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN))
        return g_variant_get_boolean(value) != FALSE;
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_INT32))
        return g_variant_get_int32(value);
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32))
        return g_variant_get_uint32(value);
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_INT64))
        return qlonglong(g_variant_get_int64(value));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT64))
        return qulonglong(g_variant_get_uint64(value));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_DOUBLE))
        return g_variant_get_double(value);
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING))
        return fromUtf8(g_variant_get_string(value, nullptr));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING_ARRAY)) {
        QStringList list;
        const gsize count = g_variant_n_children(value);
        for (gsize i = 0; i < count; ++i) {
            g_autoptr(GVariant) child = g_variant_get_child_value(value, i);
            list.append(fromUtf8(g_variant_get_string(child, nullptr)));
        }
        return list;
    }
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_BYTESTRING)) {
        gsize count = 0;
        const auto *bytes = static_cast<const char *>(g_variant_get_fixed_array(value, &count, 1));
        return QByteArray(bytes, static_cast<int>(count));
    }
    return QVariant();
}

bool StoredValue::isKeyFileName(const QString &name)
{
    const auto isForbidden = [](QChar c) {
        return c.category() == QChar::Other_Control || c == QLatin1Char('=') || c == QLatin1Char('[')
               || c == QLatin1Char(']');
    };
    return !name.isEmpty() && name == name.trimmed() && !name.startsWith(QLatin1Char('#'))
           && std::none_of(name.cbegin(), name.cend(), isForbidden) && toUtf8(name);
}
