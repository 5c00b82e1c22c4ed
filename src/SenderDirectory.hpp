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

} // namespace vlx
