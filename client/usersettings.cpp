// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "client/usersettings.h"

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

namespace {

constexpr int maximumLine = 4096;
constexpr char generalGroup[] = "[general]";
const QString settingsName = QStringLiteral("settings.conf");

/// A line of settings, with its end of line.
struct SettingsLine
{
    int begin = 0;
    int size = 0; ///< 0: there is none, but this is the place for it.
    bool inGroup = false; ///< The place is below the general group's header.
};

/// The line that sets `key` in the general group, which is also where keys before any group belong; the last if there
/// are several, as in QSettings.
SettingsLine findLine(const QByteArray &content, const QByteArray &key)
{
    SettingsLine found;
    bool inGeneral = true;
    for (int begin = 0, end = 0; begin < content.size(); begin = end) {
        end = content.indexOf('\n', begin) + 1;
        if (end == 0)
            end = content.size();
        const QByteArray line = QByteArray::fromRawData(content.constData() + begin, end - begin).trimmed();
        if (line.startsWith('[')) {
            inGeneral = line.toLower() == generalGroup;
            if (inGeneral && found.size == 0 && content.at(end - 1) == '\n')
                found = {end, 0, true};
        } else if (inGeneral && line.startsWith(key) && line.mid(key.size()).trimmed().startsWith('=')) {
            found = {begin, end - begin, true};
        }
    }
    return found;
}

/// Whether a line may hold a serialized object. QSettings would build whatever object that describes, of any size and
/// depth, and with it the user could end the daemon. With a backslash in it a line may spell anything.
bool isUnsafe(const QByteArray &line)
{
    const QByteArray text = QByteArray(line).replace('"', QByteArray());
    return line.size() > maximumLine || text.contains('\\') || text.contains("@Variant(")
           || text.contains("@DateTime(");
}

/// Path for a copy of settings; empty when there is no such directory, and then nothing can be written there.
QString copyPath(const QTemporaryDir &scratch)
{
    return scratch.isValid() ? QString(scratch.path() + QLatin1Char('/') + settingsName) : QString();
}

} // namespace

UserSettings::UserSettings(const QString &path)
    : m_file(path)
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
    if (!m_readable)
        return defaultValue;

    const SettingsLine found = findLine(m_content, key.toUtf8());
    const QByteArray line = m_content.mid(found.begin, found.size);
    const QTemporaryDir scratch;
    QFile copy(copyPath(scratch));
    if (line.isEmpty() || isUnsafe(line) || !copy.open(QIODevice::WriteOnly) || copy.write(line) != line.size())
        return defaultValue;
    copy.close();
    return QSettings(copy.fileName(), QSettings::NativeFormat).value(key, defaultValue);
}

void UserSettings::setValue(const QString &key, const QVariant &value)
{
    if (!m_readable)
        return;

    const QTemporaryDir scratch;
    QFile copy(copyPath(scratch));
    QSettings settings(copy.fileName(), QSettings::NativeFormat);
    settings.setValue(key, value);
    settings.sync();
    if (!copy.open(QIODevice::ReadOnly))
        return;
    const QByteArray header = copy.readLine();
    const SettingsLine found = findLine(m_content, key.toUtf8());
    m_content.replace(found.begin, found.size, (found.inGroup ? QByteArray() : header) + copy.readAll());
    m_changed = true;
}
