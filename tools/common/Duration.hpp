#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace vlx::tool
{

/// Reads a duration: "10ms", "1.5s", ".5s", "250us", "20000ns", "2min" or "2m", "1h", several of
/// them from large to small as in "1m30s", or a number without unit, which is seconds.
///
/// @return to the nanosecond; nothing if the text is invalid, negative, or longer than 104 days
std::optional<std::chrono::nanoseconds> parseDuration(std::string_view text);

/// @return a duration in the largest unit that needs no fraction: "2s", "1500ms"
std::string toText(std::chrono::nanoseconds duration);

} // namespace vlx::tool
