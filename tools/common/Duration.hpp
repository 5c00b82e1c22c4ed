#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace vlx::tool
{

/// Reads a duration with its unit: "10ms", "1.5s", "250us", "20000ns", "2min", "1h".
///
/// @return nothing if the text is no such thing, is negative, or does not fit
std::optional<std::chrono::nanoseconds> parseDuration(std::string_view text);

/// @return a duration as people write it, in the largest unit that needs no fraction: "2s", "1500ms"
std::string toText(std::chrono::nanoseconds duration);

} // namespace vlx::tool
