// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QStringList>
#include <QVariant>

/// The maximum size of an option's value, so that storing it repeatedly takes little time.
namespace OptionSize {

/// In characters for text, in bytes for byte arrays, and in strings and characters together for lists.
constexpr int Limit = 4096;

inline bool isTooLong(const QVariant &value)
{
    if (value.userType() == QMetaType::QByteArray)
        return value.toByteArray().size() > Limit;
    if (value.userType() == QMetaType::QString)
        return value.toString().size() > Limit;
    if (value.userType() != QMetaType::QStringList)
        return false;
    int size = 0;
    const QStringList list = value.toStringList();
    for (const QString &item : list)
        size += 1 + item.size();
    return size > Limit;
}

} // namespace OptionSize
