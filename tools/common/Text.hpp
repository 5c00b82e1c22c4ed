#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <vlxkit/Text.hpp>

namespace vlx::tool
{

using kit::quote;
using kit::toPrintable;

/// Makes a text as printf() does; at most 255 characters.
[[gnu::format(printf, 1, 2)]] std::string formatText(const char* format, ...);

/// @return such as "1.250 ms"
std::string toMilliseconds(std::int64_t nanoseconds);

/// @param numBytes  a multiple of 4
/// @return so many random bytes in hexadecimal, for names that no other user can guess
std::string makeRandomHex(std::size_t numBytes);

/// @return columns that a text takes on a terminal, for scripts whose characters take one each
std::size_t getDisplayWidth(const std::string& text);

/// Cuts what does not fit so many columns.
void cutToWidth(std::string& text, std::size_t width);

} // namespace vlx::tool
