// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
// The settings files that the plugin shares with a user. The first line of the input is a value to write, the rest is
// a file.
#include "files/settingstext.h"
#include "files/settingsvalue.h"
#include "fuzz.h"

#include <QRegularExpression>
#include <QSettings>

namespace {

const QString key = QStringLiteral("attempts");
const QString otherKey = QStringLiteral("max-attempts");

/// Whether an escape sequence spells "@".
bool spellsAt(const QByteArray &content)
{
    static const QRegularExpression codes(QStringLiteral("\\\\(?:x([0-9a-fA-F]+)|([0-7]+))"));
    auto code = codes.globalMatch(QString::fromLatin1(content));
    while (code.hasNext()) {
        const auto match = code.next();
        const uint hexadecimal = match.capturedRef(1).right(8).toUInt(nullptr, 16);
        const uint octal = match.capturedRef(2).right(8).toUInt(nullptr, 8);
        if (ushort(hexadecimal | octal) == '@')
            return true;
    }
    return false;
}

/// Whether QSettings constructs no object from a stream, which could crash it.
bool isHarmless(const QByteArray &content)
{
    if (spellsAt(content))
        return false;
    return !content.contains('@')
           || !(content.contains('\\') || content.contains('"') || content.contains("Variant")
                || content.contains("DateTime"));
}

bool hasObject(const QVariant &value)
{
    if (value.userType() == QMetaType::QVariantList) {
        const QVariantList list = value.toList();
        return std::any_of(list.cbegin(), list.cend(), hasObject);
    }
    return value.userType() == QMetaType::QRect || value.userType() == QMetaType::QSize
           || value.userType() == QMetaType::QPoint;
}

bool areSame(const std::optional<QVariant> &one, const std::optional<QVariant> &other)
{
    return one.has_value() == other.has_value() && (!one || (one->userType() == other->userType() && *one == *other));
}

/// The value as QSettings reads it; nothing where the plugin reads none on purpose.
std::optional<QVariant> asQSettings(const QByteArray &content)
{
    static int count = 0; // QSettings caches files.
    const QString path = QStringLiteral("/tmp/settings/%1.conf").arg(++count);
    TestDevice::writeFile(path, content);
    const QSettings settings(path, QSettings::NativeFormat);
    const QVariant value = settings.value(key);
    const bool isMissing =
        !settings.contains(key) || hasObject(value) || value.toList().size() > SettingsValue::maximumTexts;
    QFile::remove(path);
    return isMissing ? std::nullopt : std::optional<QVariant>(value);
}

void change(QByteArray content, const QVariant &value)
{
    const QByteArray before = content;
    const std::optional<QVariant> other = SettingsText::value(content, otherKey);
    const QByteArray written = SettingsValue::written(value);
    const std::optional<QVariant> expected = SettingsValue::parse(written, false);
    REQUIRE(expected);

    const bool isChanged = SettingsText::setValue(content, key, value);
    REQUIRE(isChanged == (content != before) || SettingsText::value(before, key) != expected);
    REQUIRE(areSame(SettingsText::value(content, key), expected));
    REQUIRE(areSame(SettingsText::value(content, otherKey), other));
    REQUIRE(content.size() <= before.size() + written.size() + 32);
    REQUIRE(!SettingsText::setValue(content, key, value));
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    Fuzz::start(argc, argv);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray input = Fuzz::bytes(data, size);
    const int end = input.indexOf('\n');
    const QString text = QString::fromUtf8(input.left(end));
    const QByteArray content = input.mid(end + 1);
    if (isHarmless(content))
        REQUIRE(areSame(SettingsText::value(content, key), asQSettings(content)));
    change(content, text);
    change(content, QStringList(text.split(QLatin1Char('|')).mid(0, SettingsValue::maximumTexts)));
    return 0;
}
