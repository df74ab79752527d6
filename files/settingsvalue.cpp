// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "files/settingsvalue.h"

#include <QByteArrayList>
#include <QStringList>

#include <algorithm>
#include <cctype>

using namespace SettingsValue;

namespace {

constexpr char invalidValue[] = "@Invalid()";

/// The value of a hexadecimal digit; 16 if `c` is none.
int digitValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    const char letter = char(c | 0x20);
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : 16;
}

/// Decodes the escape sequence whose backslash is before `position` and appends the result to `text`. Returns the
/// position after the sequence.
int unescape(const QByteArray &value, int position, QString &text)
{
    static const QByteArray names("abfnrtv\"?'\\");
    static const QByteArray meanings("\a\b\f\n\r\t\v\"?'\\");
    if (position == value.size())
        return position;
    const char name = value.at(position);
    if (isLineEnd(name))
        return position + lineEndSize(value, position);
    const int index = names.indexOf(name);
    if (index != -1)
        text += QLatin1Char(meanings.at(index));

    const int base = name == 'x' ? 16 : 8;
    const int begin = name == 'x' ? position + 1 : position;
    int end = begin;
    ushort code = 0;
    for (; end < value.size() && digitValue(value.at(end)) < base; ++end)
        code = ushort(code * base + digitValue(value.at(end)));
    if (end > begin)
        text += QChar(code);
    return std::max(end, position + 1);
}

/// Splits a value into its strings; more than one form a list. Stops after maximumTexts + 1 of them.
QStringList split(const QByteArray &value, bool isUtf8)
{
    QStringList found;
    QString text;
    bool inQuotes = false;
    bool wasQuoted = false;
    int escapedSize = 0;
    const auto skipBlanks = [&value](int position) {
        while (position < value.size() && isBlank(value.at(position)))
            ++position;
        return position;
    };
    const auto finish = [&] {
        while (!wasQuoted && text.size() > escapedSize && isBlank(text.at(text.size() - 1).toLatin1()))
            text.chop(1);
        found << text;
        text.clear();
        wasQuoted = false;
        escapedSize = 0;
    };

    for (int i = skipBlanks(0); i < value.size() && found.size() < maximumTexts;) {
        const char c = value.at(i);
        if (c == '\\') {
            i = unescape(value, i + 1, text);
            escapedSize = text.size();
        } else if (c == '"') {
            inQuotes = !inQuotes;
            wasQuoted = true;
            i = inQuotes ? i + 1 : skipBlanks(i + 1);
        } else if (c == ',' && !inQuotes) {
            finish();
            i = skipBlanks(i + 1);
        } else {
            const auto isSpecial = [](char other) {
                return other == '\\' || other == '"' || other == ',';
            };
            const char *const begin = value.constData() + i;
            const int size = int(std::find_if(begin + 1, value.constEnd(), isSpecial) - begin);
            if (!isUtf8)
                text += QLatin1String(begin, size);
            else if (size > 1)
                text += QString::fromUtf8(begin, size);
            else // Same result as fromUtf8(), whose fixed cost would add up over tens of thousands of characters.
                text += c & 0x80 ? QChar(QChar::ReplacementCharacter) : QChar(QLatin1Char(c));
            i += size;
        }
    }
    finish();
    return found;
}

/// Whether QSettings would construct an object from `text`.
bool isObject(const QString &text)
{
    if (!text.startsWith(QLatin1Char('@')) || !text.endsWith(QLatin1Char(')')))
        return false;
    const int numbers = text.count(QLatin1Char(' ')) + text.count(QLatin1Char(')'));
    return text.startsWith(QLatin1String("@Variant(")) || text.startsWith(QLatin1String("@DateTime("))
           || (text.startsWith(QLatin1String("@Rect(")) && numbers == 4)
           || (text.startsWith(QLatin1String("@Size(")) && numbers == 2)
           || (text.startsWith(QLatin1String("@Point(")) && numbers == 2);
}

QVariant meaning(const QString &text)
{
    if (text == QLatin1String(invalidValue))
        return {};
    if (text.startsWith(QLatin1String("@@")))
        return text.mid(1);
    const int begin = text.indexOf(QLatin1Char('(')) + 1;
    const QString argument = text.mid(begin, text.size() - begin - 1);
    if (text.startsWith(QLatin1String("@ByteArray(")) && text.endsWith(QLatin1Char(')')))
        return argument.toLatin1();
    if (text.startsWith(QLatin1String("@String(")) && text.endsWith(QLatin1Char(')')))
        return argument;
    return text;
}

/// Encodes `text`: a plain word or number stays as it is, anything else is quoted.
QByteArray written(const QString &text)
{
    QByteArray result = text.startsWith(QLatin1Char('@')) ? "@" : "";
    bool afterCode = false;
    for (const QChar c : text) {
        const ushort code = c.unicode();
        const bool isPrintable = code >= 0x20 && code < 0x7f;
        // A digit after a character code would be read as part of the code, so encode it too.
        afterCode = !isPrintable || code == '"' || code == '\\' || (afterCode && digitValue(char(code)) < 16);
        result += afterCode ? "\\x" + QByteArray::number(code, 16) : QByteArray(1, char(code));
    }
    const bool isPlain = std::all_of(result.cbegin(), result.cend(), [](char c) { return isalnum(c) || c == '-'; });
    return isPlain ? result : '"' + result + '"';
}

} // namespace

bool SettingsValue::isBlank(char c)
{
    return c == ' ' || c == '\t';
}

bool SettingsValue::isLineEnd(char c)
{
    return c == '\n' || c == '\r';
}

int SettingsValue::lineEndSize(const QByteArray &content, int position)
{
    const bool isPair = position + 1 < content.size() && isLineEnd(content.at(position + 1))
                        && content.at(position + 1) != content.at(position);
    return isPair ? 2 : 1;
}

std::optional<QVariant> SettingsValue::parse(const QByteArray &value, bool isUtf8)
{
    const QStringList texts = split(value, isUtf8);
    if (texts.size() > maximumTexts || std::any_of(texts.cbegin(), texts.cend(), isObject))
        return {};
    if (texts.size() == 1)
        return meaning(texts.first());
    const auto isTyped = [](const QString &text) {
        return text.startsWith(QLatin1Char('@')) && !text.startsWith(QLatin1String("@@"));
    };
    QVariantList values;
    for (const QString &text : texts)
        values << meaning(text);
    return std::any_of(texts.cbegin(), texts.cend(), isTyped) ? values : QVariant(QVariant(values).toStringList());
}

QByteArray SettingsValue::written(const QVariant &value)
{
    const bool isList = value.type() == QVariant::StringList || value.type() == QVariant::List;
    const QVariantList values = isList ? value.toList() : QVariantList{value};
    if (!value.isValid() || values.isEmpty())
        return invalidValue;
    QByteArrayList texts;
    for (const QVariant &element : values)
        texts << ::written(element.toString());
    return texts.join(", ");
}
