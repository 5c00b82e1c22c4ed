#include "Text.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <random>

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

std::string makeRandomHex(std::size_t numBytes)
{
    std::random_device source;
    std::string text;
    while (text.size() < 2 * numBytes)
        text += formatText("%08x", source());
    return text;
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
