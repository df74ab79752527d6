// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>
#include <QVariant>

#include <optional>
#include <string>

/// Texts and values as the option store's files have them.
namespace StoredValue {

/// The text in UTF-8; absent when it cannot be written so (a zero character, half a surrogate pair).
std::optional<std::string> toUtf8(const QString &text);
/// The text as it is; QString's own conversion would take a leading byte order mark away.
QString fromUtf8(const char *utf8);

/// Whether the value takes so much room that storing it again and again would keep everybody waiting: more than 4096
/// characters, texts or bytes in all.
bool isTooLong(const QVariant &value);
/// The value in the store's form; absent when it has none from which the same value would come back.
std::optional<std::string> toStored(const QVariant &value);
/// The value of a text in the store's form; an invalid variant when it is none of those that toStored() takes.
QVariant fromStored(const char *text);

/// Whether `name` can stand as a key or a group in a key file and come back unchanged.
bool isKeyFileName(const QString &name);

} // namespace StoredValue
