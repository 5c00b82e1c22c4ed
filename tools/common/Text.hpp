#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vlx::tool
{

/// Makes a text as printf() does; at most 255 characters.
[[gnu::format(printf, 1, 2)]] std::string formatText(const char* format, ...);

/// @return such as "1.250 ms"
std::string toMilliseconds(std::int64_t nanoseconds);

/// @return a text of others as it can be shown: what would move the cursor, and what is no UTF-8, as
///         \xNN
std::string toPrintable(const std::string& text);

/// @return columns that a text takes on a terminal, for scripts whose characters take one each
std::size_t getDisplayWidth(const std::string& text);

/// Cuts what does not fit so many columns.
void cutToWidth(std::string& text, std::size_t width);

} // namespace vlx::tool
