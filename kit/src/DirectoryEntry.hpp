#pragma once

#include <string>

namespace vlx::kit
{

/// Creates an empty file and removes it at once, to notify processes that watch its directory. Its
/// name ends in random characters, so no other user can block it.
///
/// @param prefix  path of the file without the random characters
/// @return whether it was created; otherwise errno has the reason
/// @thread any
bool flashDirectoryEntry(const std::string& prefix);

} // namespace vlx::kit
