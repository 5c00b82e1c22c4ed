#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace vlx::tool
{

/// Takes a decimal number, such as "1" or "44.1", off the front of a text.
///
/// @param unit  what 1 stands for; digits below one of the result are cut
/// @return the number in the unit's parts; nothing, with the text as it was or behind some digits, if
///         there is no number or it does not fit
std::optional<std::int64_t> takeDecimal(std::string_view& text, std::int64_t unit);

/// Reads a whole number that is not negative and nothing else.
///
/// @return nothing if the text is no such thing or does not fit
std::optional<std::uint64_t> parseNumber(std::string_view text);

/// Reads a sample rate: "44100", "44.1k", "48kHz".
///
/// @return samples per second; nothing if the text is none that a stream can have
std::optional<std::uint32_t> parseRate(std::string_view text);

} // namespace vlx::tool
