#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

namespace vlx::tool
{

/// Writes a report, replacing the file as a whole, so that a reader never sees half of one.
///
/// @param path  of a regular file or one to be made; anything else, such as a terminal, is written to.
///              "-" is standard output
/// @return empty if it was done; otherwise one line that says what went wrong
std::string writeReportFile(const std::string& path, const nlohmann::ordered_json& report);

/// The same for any text.
std::string writeTextFile(const std::string& path, const std::string& text);

} // namespace vlx::tool
