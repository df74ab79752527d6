// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <optional>

/// The text of a file of native-format settings: the keys outside of any group, as QSettings finds them, whatever else
/// the text holds. Takes time linear in the text's size.
namespace SettingsText {

/// The value of `key`; nothing when there is none, or one that SettingsValue::parse() refuses.
std::optional<QVariant> value(const QByteArray &content, const QString &key);
/// Sets `key`, which has no character but letters, digits and '-', and changes no other line; false when it has this
/// value already.
bool setValue(QByteArray &content, const QString &key, const QVariant &value);

} // namespace SettingsText
