#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

namespace vlx::tool
{

/// @return whether writeTextFile() replaces the file: true for regular files and new ones, false
///         for devices, FIFOs, paths below /dev and /proc, and "-"
bool isReplaced(const std::string& path);

/// Writes a text, replacing the file as a whole: a reader sees the old text or the new one, and a
/// failure leaves the old one. Follows no link that another user has put there. What isReplaced()
/// excludes is written to in place; a FIFO needs a reader.
///
/// @param path  "-": standard output
/// @throws CommandFailure if the text cannot be written
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
