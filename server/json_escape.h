// The inside of a JSON string from UTF-16 (RFC 8259, 7), as QJsonDocument writes it.

#pragma once

#include "vector_blocks.h"

#include <QChar>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

// What a UTF-16 unit becomes at most: \\u001f, in a text within a string.
constexpr qsizetype MaxEscapedBytes = 7;

// Which units are no ASCII, or are escaped in a JSON string.
inline Units special(Units block)
{
    return (block < 0x20) | (block == '"') | (block == '\\') | (block > 0x7f);
}

// How a string writes what is below 0x80: as itself (0), with a letter behind the backslash, or by
// its number ('u').
inline constexpr auto Escapes = [] {
    std::array<char, 0x80> letters {};
    std::ranges::copy(std::string_view("uuuuuuuubtnufruuuuuuuuuuuuuuuuuu"), letters.begin());
    letters[u'"'] = '"';
    letters[u'\\'] = '\\';
    return letters;
}();

inline char *putNumbered(char *out, char16_t unit)
{
    constexpr auto Digits = "0123456789abcdef";
    *out++ = 'u';
    for (int shift = 12; shift >= 0; shift -= 4)
        *out++ = Digits[(unit >> shift) & 0xf];
    return out;
}

// Writes one character, of one unit or a surrogate pair, from text on; both move behind it. nested:
// the string stands in a text that is a string itself, so that each backslash and quote of its JSON
// form has a backslash before it.
template <bool nested> void putCharacter(const char16_t *&text, const char16_t *end, char *&out)
{
    const char16_t unit = *text++;
    if (unit < 0x80) {
        const char letter = Escapes[unit];
        if (letter == 0) {
            *out++ = static_cast<char>(unit);
            return;
        }
        *out++ = '\\';
        if (nested) {
            *out++ = '\\';
            if (letter == '"' || letter == '\\')
                *out++ = '\\';
        }
        if (letter == 'u')
            out = putNumbered(out, unit);
        else
            *out++ = letter;
    } else if (unit < 0x800) {
        *out++ = static_cast<char>(0xc0 | (unit >> 6));
        *out++ = static_cast<char>(0x80 | (unit & 0x3f));
    } else if (!QChar::isSurrogate(unit)) {
        *out++ = static_cast<char>(0xe0 | (unit >> 12));
        *out++ = static_cast<char>(0x80 | ((unit >> 6) & 0x3f));
        *out++ = static_cast<char>(0x80 | (unit & 0x3f));
    } else if (QChar::isHighSurrogate(unit) && text != end && QChar::isLowSurrogate(*text)) {
        const char32_t code = QChar::surrogateToUcs4(unit, *text++);
        *out++ = static_cast<char>(0xf0 | (code >> 18));
        *out++ = static_cast<char>(0x80 | ((code >> 12) & 0x3f));
        *out++ = static_cast<char>(0x80 | ((code >> 6) & 0x3f));
        *out++ = static_cast<char>(0x80 | (code & 0x3f));
    } else { // half of a pair has no UTF-8 form
        *out++ = '\\';
        if (nested)
            *out++ = '\\';
        out = putNumbered(out, unit);
    }
}

// Writes text up to end in blocks, and the rest of it one by one; both move on. A surrogate pair
// that begins there is written whole, if it ends before textEnd.
template <bool nested>
void putText(const char16_t *&text, const char16_t *end, const char16_t *textEnd, char *&out)
{
    while (end - text >= BlockUnits) {
        const auto block = loadBlock<Units>(text);
        const auto narrow = __builtin_convertvector(block, NarrowUnits);
        std::memcpy(out, &narrow, sizeof narrow);
        if (any(special(block))) {
            for (const char16_t *const blockEnd = text + BlockUnits; text < blockEnd;)
                putCharacter<nested>(text, textEnd, out);
        } else {
            text += BlockUnits;
            out += BlockUnits;
        }
    }
    while (text < end)
        putCharacter<nested>(text, textEnd, out);
}
