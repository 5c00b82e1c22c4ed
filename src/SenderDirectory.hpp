#pragma once

#include <cstdlib>
#include <string>

namespace vlx
{

/// How the name of every sender's own directory begins.
inline constexpr const char* SenderDirectoryPrefix = "VlxSender-";

/// @return the directory in which every sender makes its own, looked up afresh
inline std::string getBaseDirectory()
{
    const char* const directory = std::getenv("TMPDIR");
    return directory != nullptr ? directory : "/tmp/vlx";
}

/// @param chosen  directory that the application has set; empty: the environment decides
/// @return the directory in which every sender makes its own
inline std::string getBaseDirectory(const std::string& chosen)
{
    return chosen.empty() ? getBaseDirectory() : chosen;
}

} // namespace vlx
