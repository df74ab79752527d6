// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>
#include <QVariant>

#include <optional>
#include <string>

/// Conversion of strings and values to and from the option store's file format.
namespace StoredValue {

/// Returns the text in UTF-8, or nothing when it holds a null character or a lone surrogate.
std::optional<std::string> toUtf8(const QString &text);
/// Converts exactly; QString::fromUtf8() would drop a leading byte order mark.
QString fromUtf8(const char *utf8);

/// Returns the value in the store's format, or nothing when it would not read back as the same value.
std::optional<std::string> toStored(const QVariant &value);
/// Reads a value in the store's format. Returns an invalid variant when it is malformed or of a type that toStored()
/// does not write.
QVariant fromStored(const char *text);

/// Whether a key file can hold `name` as a key or a group and read it back unchanged.
bool isKeyFileName(const QString &name);

} // namespace StoredValue
