// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// Whether a terminal may interpret a Unicode character instead of displaying it: control characters (C0, DEL and C1),
/// line and paragraph separators, and bidirectional formatting characters (Unicode's property Bidi_Control).
constexpr bool isHarmfulCharacter(char32_t character)
{
    return character < 0x20 || (character >= 0x7f && character <= 0x9f) || character == 0x061c || character == 0x200e
           || character == 0x200f || (character >= 0x2028 && character <= 0x202e)
           || (character >= 0x2066 && character <= 0x2069);
}
