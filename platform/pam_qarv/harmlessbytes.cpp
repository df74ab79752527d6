// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause
#include "harmlessbytes.h"

#include "harmfulcharacter.h"

#include <cstddef>
#include <cstdio>

namespace {

constexpr char32_t Invalid = 0xffffffff;

/// Decodes the character at the start of `text`, which is not empty, and sets its size. For bytes that are not UTF-8,
/// returns Invalid and the size 1.
char32_t decode(std::string_view text, std::size_t &size)
{
    struct Form
    {
        unsigned char mask, lead;
        char32_t least; ///< Smaller characters have a shorter form.
    };
    constexpr Form Forms[] = {{0x80, 0x00, 0}, {0xe0, 0xc0, 0x80}, {0xf0, 0xe0, 0x800}, {0xf8, 0xf0, 0x10000}};
    constexpr unsigned char TailMask = 0xc0;
    constexpr unsigned char TailLead = 0x80;
    constexpr int TailBits = 6;
    constexpr char32_t LastCharacter = 0x10ffff;

    const auto byte = [text](std::size_t index) {
        return static_cast<unsigned char>(text[index]);
    };
    std::size_t length = 1;
    for (const Form &form : Forms) {
        if ((byte(0) & form.mask) != form.lead) {
            ++length;
            continue;
        }
        size = 1;
        if (length > text.size())
            return Invalid;
        char32_t character = byte(0) & static_cast<unsigned char>(~form.mask);
        for (std::size_t index = 1; index < length; ++index) {
            if ((byte(index) & TailMask) != TailLead)
                return Invalid;
            character = (character << TailBits) | (byte(index) & static_cast<unsigned char>(~TailMask));
        }
        const bool isSurrogate = character >= 0xd800 && character <= 0xdfff;
        if (character < form.least || character > LastCharacter || isSurrogate)
            return Invalid;
        size = length;
        return character;
    }
    size = 1;
    return Invalid;
}

} // namespace

std::string harmless(std::string_view text)
{
    std::string result;
    for (std::size_t size = 0; !text.empty(); text.remove_prefix(size)) {
        const char32_t character = decode(text, size);
        if (character == Invalid) {
            result += '?';
        } else if (isHarmfulCharacter(character)) {
            char escape[sizeof "\\uffffffff"];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned int>(character));
            result += escape;
        } else {
            result += text.substr(0, size);
        }
    }
    return result;
}
