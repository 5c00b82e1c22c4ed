#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "StreamMeter.hpp"

namespace vlx::tool
{

/// @return one line about one stream, without its end
std::string renderLine(const StreamSnapshot& snapshot);

/// @return one JSON object about one stream
nlohmann::ordered_json renderJson(const StreamSnapshot& snapshot);

/// @param width  columns of the terminal
/// @return lines about one stream, no longer than the terminal is wide
std::vector<std::string>
renderScreen(const StreamSnapshot& snapshot, std::size_t width, bool colored);

/// @return OpenMetrics text about all streams, for the textfile collector of a node exporter
std::string renderMetrics(const std::vector<StreamSnapshot>& snapshots);

} // namespace vlx::tool
