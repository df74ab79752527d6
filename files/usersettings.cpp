// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "files/usersettings.h"

#include "files/settingstext.h"

#include <utility>

UserSettings::UserSettings(const QString &path)
    : UserSettings(PinnedFile(path))
{
}

UserSettings::UserSettings(PinnedFile file)
    : m_file(std::move(file))
    , m_readable(m_file.read(m_content))
{
}

UserSettings::~UserSettings()
{
    if (m_changed)
        m_file.write(m_content);
}

QVariant UserSettings::value(const QString &key, const QVariant &defaultValue) const
{
    return m_readable ? SettingsText::value(m_content, key).value_or(defaultValue) : defaultValue;
}

void UserSettings::setValue(const QString &key, const QVariant &value)
{
    if (m_readable && SettingsText::setValue(m_content, key, value))
        m_changed = true;
}
