#pragma once

/// Text from other processes and users, made safe to show.

#include <cstddef>
#include <string>
#include <string_view>

#include <vlx/VlxTypes.hpp>

namespace vlx::kit
{

/// Longest text that toPrintable() returns by default, in bytes.
inline constexpr std::size_t MaxPrintableLength = 1000;

/// Makes a text safe to show on a terminal and to write as one line. Control characters, characters
/// that are invisible or change the direction of the text around them, and bytes that are not valid
/// UTF-8 become "\xNN", one for each byte. All other characters stay, the backslash too, so that a
/// text that was made printable before does not change. The result does not depend on the locale.
///
/// For display only: different texts can look the same. Ask for a stream by the bytes of its name.
///
/// @param text       any bytes
/// @param maxLength  of the result in bytes, at least 3; a longer one is cut and ends with "..."
/// @return printable UTF-8
/// @thread any
VLX_API std::string toPrintable(std::string_view text, std::size_t maxLength = MaxPrintableLength);

/// Sets a text of others apart within a message.
///
/// @return the text as toPrintable() returns it, in double quotes
/// @thread any
VLX_API std::string quote(std::string_view text);

} // namespace vlx::kit
