// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <QString>

#include <algorithm>

/// Whether a terminal may interpret a character instead of displaying it: control characters (C0, DEL and C1), line and
/// paragraph separators, and bidirectional formatting characters.
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

/// Makes untrusted text safe to show on one line of a terminal or a log: replaces each harmful character by its escape,
/// such as "\u001b". JSON uses the same form, so a compact JSON document keeps its meaning. Invalid UTF-8 and lone
/// surrogates need no care here: the conversions to and from QString replace them.
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
