#include "Text.hpp"

#include <algorithm>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cwchar>

#include <wctype.h>

namespace vlx::tool
{

namespace
{

/// @return whether a byte begins a character
bool beginsCharacter(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80;
}

/// Reads the character that a text begins with, whatever the process's locale.
///
/// @return its bytes; 0 if they are no UTF-8, or the character would move the cursor
std::size_t measurePrintable(const char* text, std::size_t size)
{
    static const locale_t Utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    const locale_t former = ::uselocale(Utf8);
    std::mbstate_t state{};
    wchar_t character = 0;
    const std::size_t length = std::mbrtowc(&character, text, size, &state);
    const bool isPrintable = length <= size && ::iswprint(static_cast<wint_t>(character)) != 0;
    ::uselocale(former);
    return isPrintable ? length : 0;
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
        const std::size_t length = measurePrintable(&text[i], text.size() - i);
        printable += length > 0 ? text.substr(i, length)
                                : formatText("\\x%02x", static_cast<unsigned char>(text[i]));
        i += std::max<std::size_t>(length, 1);
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
