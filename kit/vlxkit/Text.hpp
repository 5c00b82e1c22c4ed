#pragma once

/// Display of text from other processes and users.

#include <cstddef>
#include <string>
#include <string_view>

#include <vlx/VlxTypes.hpp>

namespace vlx::kit
{

/// Longest text that toPrintable() returns by default, in bytes.
inline constexpr std::size_t MaxPrintableLength = 1000;

/// Makes a text safe to show on a terminal or to write as one line. Each byte of a control
/// character, of an invisible character, of one that changes the direction of the text, and of
/// invalid UTF-8 becomes "\xNN". All other characters, including the backslash, are unchanged, so
/// that a printable text stays as it is. The result does not depend on the locale.
///
/// For display only: different texts may give the same result. Join a stream by the bytes of its
/// name.
///
/// @param text       any bytes
/// @param maxLength  longest result in bytes, at least 3; a longer one is cut and ends with "..."
/// @return printable UTF-8
/// @thread any
VLX_API std::string toPrintable(std::string_view text, std::size_t maxLength = MaxPrintableLength);

/// Quotes a text for a message.
///
/// @return the result of toPrintable(), in double quotes
/// @thread any
VLX_API std::string quote(std::string_view text);

} // namespace vlx::kit
