#include "Text.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include <glib.h>

namespace vlx::tool
{

namespace
{

/// @return whether a byte begins a character
bool beginsCharacter(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80;
}

} // unnamed namespace

std::string formatText(const char* format, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

std::string toMilliseconds(std::int64_t nanoseconds)
{
    return formatText("%.3f ms", static_cast<double>(nanoseconds) / 1e6);
}

std::string toPrintable(const std::string& text)
{
    std::string printable;
    for (std::size_t i = 0; i < text.size();)
    {
        const char* const begin = &text[i];
        const gunichar character =
            g_utf8_get_char_validated(begin, static_cast<gssize>(text.size() - i));
        const bool isValid = character < 0x110000;
        const std::size_t length =
            isValid ? static_cast<std::size_t>(g_utf8_next_char(begin) - begin) : 1;
        if (isValid && g_unichar_isprint(character) != FALSE)
            printable.append(begin, length);
        else
            for (std::size_t k = 0; k < length; ++k)
                printable += formatText("\\x%02x", static_cast<unsigned char>(begin[k]));
        i += length;
    }
    return printable;
}

std::size_t getDisplayWidth(const std::string& text)
{
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), beginsCharacter));
}

void cutToWidth(std::string& text, std::size_t width)
{
    std::size_t end = 0;
    for (std::size_t used = 0; end < text.size(); ++end)
    {
        if (beginsCharacter(text[end]) && used++ == width)
            break;
    }
    text.resize(end);
}

} // namespace vlx::tool
