// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QVariant>

#include <optional>

/// Parses and writes values of native-format settings files, as QSettings does. It never constructs serialized objects,
/// because the file's writer controls their size and depth. All functions take time linear in the size of the value.
namespace SettingsValue {

constexpr int maximumTexts = 1000; ///< The longest list.

/// Whether `c` is a space or a tab.
bool isBlank(char c);
/// Whether `c` ends a line, alone or as one of two characters.
bool isLineEnd(char c);
/// The number of bytes in the line end at `position`.
int lineEndSize(const QByteArray &content, int position);

/// Parses `value` as a string, a byte array, an invalid variant, or a list of these. Nothing for a serialized object, a
/// list that contains one, or a list with more than maximumTexts elements. Bytes above 127 are UTF-8 if `isUtf8`, else
/// Latin-1.
std::optional<QVariant> parse(const QByteArray &value, bool isUtf8);
/// The text to write for `value`: a string or a list of strings, for any type. parse() does not read a longer list than
/// maximumTexts.
QByteArray written(const QVariant &value);

} // namespace SettingsValue
