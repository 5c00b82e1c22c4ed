#include <algorithm>
#include <array>
#include <cassert>
#include <cstdint>

#include <vlxkit/Text.hpp>

namespace vlx::kit
{

namespace
{

constexpr std::string_view Ellipsis = "...";

struct Range
{
    std::uint32_t first;
    std::uint32_t last;
};

// Characters that move the cursor, are invisible, or reorder the text around them, ascending.
constexpr std::array<Range, 25> HiddenCharacters = {
    {{0x00, 0x1F},            // controls
     {0x7F, 0x9F},            // delete, and the controls of ISO 6429 in one character
     {0xAD, 0xAD},            // soft hyphen
     {0x34F, 0x34F},          // combining grapheme joiner
     {0x61C, 0x61C},          // Arabic letter mark
     {0x115F, 0x1160},        // Hangul fillers
     {0x17B4, 0x17B5},        // Khmer inherent vowels
     {0x180B, 0x180F},        // Mongolian variation selectors and vowel separator
     {0x200B, 0x200F},        // zero-width characters, marks of direction
     {0x2028, 0x202E},        // line and paragraph separators, embeddings and overrides
     {0x2060, 0x206F},        // word joiner, isolates, deprecated format characters
     {0x3164, 0x3164},        // Hangul filler
     {0xD800, 0xDFFF},        // surrogates
     {0xE000, 0xF8FF},        // private use: what it looks like is anybody's choice
     {0xFDD0, 0xFDEF},        // noncharacters
     {0xFE00, 0xFE0F},        // variation selectors
     {0xFEFF, 0xFEFF},        // zero-width no-break space
     {0xFFA0, 0xFFA0},        // halfwidth Hangul filler
     {0xFFF0, 0xFFFB},        // interlinear annotation
     {0xFFFE, 0xFFFF},        // noncharacters
     {0x13430, 0x1345F},      // Egyptian format characters
     {0x1BCA0, 0x1BCA3},      // shorthand format controls
     {0x1D173, 0x1D17A},      // musical format controls
     {0xE0000, 0xE0FFF},      // tags, variation selectors
     {0xF0000, 0xFFFFFFFF}}}; // private use, and no character at all

bool isHidden(std::uint32_t character)
{
    const auto* const range = std::lower_bound(
        HiddenCharacters.begin(), HiddenCharacters.end(), character,
        [](const Range& each, std::uint32_t value) { return each.last < value; });
    return range != HiddenCharacters.end() && range->first <= character;
}

/// @return number of bytes of a character, from its first byte; 0 for an invalid first byte
std::size_t getCharacterLength(unsigned char first)
{
    if (first < 0x80)
        return 1;
    return first >= 0xC2 && first <= 0xDF   ? 2
           : first >= 0xE0 && first <= 0xEF ? 3
           : first >= 0xF0 && first <= 0xF4 ? 4
                                            : 0;
}

/// @return number of bytes of the visible character at the start of a text; 0 if there is no such
///         character
std::size_t measureVisible(std::string_view text)
{
    constexpr std::array<std::uint32_t, 5> Smallest = {0, 0, 0x80, 0x800, 0x10000};
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t length = getCharacterLength(first);
    if (length == 0 || length > text.size())
        return 0;
    std::uint32_t character = length == 1 ? first : first & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i)
    {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0U) != 0x80)
            return 0;
        character = (character << 6U) | (byte & 0x3FU);
    }
    return character < Smallest.at(length) || isHidden(character) ? 0 : length;
}

std::string toHex(char byte)
{
    constexpr std::string_view Digits = "0123456789abcdef";
    const auto value = static_cast<unsigned char>(byte);
    return {'\\', 'x', Digits[value >> 4U], Digits[value & 0xFU]};
}

} // unnamed namespace

std::string toPrintable(std::string_view text, std::size_t maxLength)
{
    assert(maxLength >= Ellipsis.size());
    std::string printable;
    std::size_t cut = 0; // behind the last piece that leaves room for the ellipsis
    while (!text.empty() && printable.size() <= maxLength)
    {
        const std::size_t length = measureVisible(text);
        printable += length > 0 ? std::string(text.substr(0, length)) : toHex(text.front());
        text.remove_prefix(std::max<std::size_t>(length, 1));
        if (printable.size() + Ellipsis.size() <= maxLength)
            cut = printable.size();
    }
    if (printable.size() > maxLength)
    {
        printable.resize(cut);
        printable += Ellipsis;
    }
    return printable;
}

std::string quote(std::string_view text)
{
    return '"' + toPrintable(text) + '"';
}

} // namespace vlx::kit
