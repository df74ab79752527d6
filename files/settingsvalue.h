// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QVariant>

#include <optional>

/// The values in a file of native-format settings, as QSettings reads and writes them, save that no object is ever
/// built: whoever writes the file could have one built of any size and depth. Takes time linear in the value's size.
namespace SettingsValue {

constexpr int maximumTexts = 1000; ///< As many texts a list may have.

/// Whether `c` is a space or a tab.
bool isBlank(char c);
/// Whether `c` ends a line, by itself or as one of a pair.
bool isLineEnd(char c);
/// How many bytes the end of a line takes at `position`, where there is one.
int lineEndSize(const QByteArray &content, int position);

/// What `value` stands for: a text, bytes, an invalid variant, or a list of these. Nothing for an object, for a list
/// with one in it, and for a list of more than maximumTexts. Bytes above 127 are UTF-8 or Latin-1.
std::optional<QVariant> parse(const QByteArray &value, bool isUtf8);
/// How `value` is written: as text or list of texts, whatever its type.
QByteArray written(const QVariant &value);

} // namespace SettingsValue
