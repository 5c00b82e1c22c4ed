#pragma once

#include <cstdlib>
#include <string>

namespace vlx
{

/// Prefix of the name of every sender's directory.
inline constexpr const char* SenderDirectoryPrefix = "VlxSender-";

/// @return the base directory, in which every sender creates its own; read from the environment at
///         each call
inline std::string getBaseDirectory()
{
    const char* const directory = std::getenv("TMPDIR");
    return directory != nullptr ? directory : "/tmp/vlx";
}

/// @param chosen  directory set by the application; empty: from the environment
/// @return the base directory, in which every sender creates its own
inline std::string getBaseDirectory(const std::string& chosen)
{
    return chosen.empty() ? getBaseDirectory() : chosen;
}

} // namespace vlx
