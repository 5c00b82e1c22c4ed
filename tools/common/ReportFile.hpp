#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

namespace vlx::tool
{

/// @return whether a text that is written there takes the place of the one before
bool isReplaced(const std::string& path);

/// Writes a text, replacing the file as a whole, so that a reader never sees half of one.
///
/// @param path  of a regular file or one to be made; anything else, such as a terminal, is written to.
///              "-" is standard output
/// @throws CommandFailure if it cannot be written
void writeTextFile(const std::string& path, const std::string& text);

/// The same for a JSON document and the end of the line. Names and paths in it may be any bytes:
/// characters beyond ASCII are escaped, and bytes that are not valid UTF-8 become the replacement
/// character.
///
/// @param indentation  columns; -1: all on one line
void writeJson(
    const std::string& path,
    const nlohmann::ordered_json& document,
    int indentation = 2);

} // namespace vlx::tool
