#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace vlx::tool
{

/// Takes a decimal number, such as "1" or "44.1", off the front of a text.
///
/// @return nothing, with the text unchanged, if it begins with no number
std::optional<double> takeDecimal(std::string_view& text);

/// Reads a whole number that is not negative and nothing else.
///
/// @return nothing if the text is invalid or the number does not fit
std::optional<std::uint64_t> parseNumber(std::string_view text);

/// Reads a sample rate: "44100", "44.1k", "48kHz".
///
/// @return samples per second; nothing if the text is invalid or a stream cannot have the rate
std::optional<std::uint32_t> parseRate(std::string_view text);

} // namespace vlx::tool
