// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

#include <algorithm>

/// Whether a character may do more on a terminal than appear where it stands: control characters (C0, DEL and C1), line
/// and paragraph separators, and those that turn the direction of the text around them.
inline bool isHarmful(QChar character)
{
    switch (character.category()) {
    case QChar::Other_Control:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return true;
    default:
        break;
    }
    // Unicode's property Bidi_Control
    const ushort code = character.unicode();
    return code == 0x061c || code == 0x200e || code == 0x200f || (code >= 0x202a && code <= 0x202e)
           || (code >= 0x2066 && code <= 0x2069);
}

/// A text from outside as it may go to a terminal or into a log, on one line: each harmful character is replaced by its
/// escape, as "\u001b". That is JSON's own form, so a compact JSON document keeps its value. Invalid UTF-8 is replaced
/// when bytes become a QString, and half a surrogate pair when the QString becomes bytes again.
inline QString harmless(const QString &text)
{
    if (std::none_of(text.cbegin(), text.cend(), isHarmful))
        return text;
    QString result;
    for (const QChar character : text) {
        if (isHarmful(character))
            result += QStringLiteral("\\u%1").arg(character.unicode(), 4, 16, QLatin1Char('0'));
        else
            result += character;
    }
    return result;
}
