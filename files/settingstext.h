// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <optional>

/// Reads and changes the text of a native-format settings file. It finds the keys outside any group as QSettings does.
/// All functions take time linear in the size of the text.
namespace SettingsText {

/// The value of `key`; nothing when the key is missing or SettingsValue::parse() refuses the value.
std::optional<QVariant> value(const QByteArray &content, const QString &key);
/// Sets `key`, which may contain only letters, digits and '-', and leaves all other lines unchanged. False when the key
/// already has this value.
bool setValue(QByteArray &content, const QString &key, const QVariant &value);

} // namespace SettingsText
