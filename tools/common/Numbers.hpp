#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace vlx::tool
{

/// Takes a decimal number, such as "1" or "44.1", off the front of a text.
///
/// @return nothing, with the text as it was, if there is none
std::optional<double> takeDecimal(std::string_view& text);

/// Reads a whole number that is not negative and nothing else.
///
/// @return nothing if the text is no such thing or does not fit
std::optional<std::uint64_t> parseNumber(std::string_view text);

/// Reads a sample rate: "44100", "44.1k", "48kHz".
///
/// @return samples per second; nothing if the text is none that a stream can have
std::optional<std::uint32_t> parseRate(std::string_view text);

} // namespace vlx::tool
