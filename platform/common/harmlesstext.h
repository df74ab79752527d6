// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "harmfulcharacter.h"

#include <QString>

#include <algorithm>

/// Whether a terminal may interpret a character instead of displaying it. No character beyond the basic plane does.
inline bool isHarmful(QChar character)
{
    return isHarmfulCharacter(character.unicode());
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
