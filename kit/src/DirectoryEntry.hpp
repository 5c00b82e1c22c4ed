#pragma once

#include <string>

namespace vlx::kit
{

/// Makes an empty file and removes it again at once, for whoever watches its directory. What an
/// earlier process may have left under the same name is replaced.
///
/// @return whether it was made; otherwise errno tells why
/// @thread any, one at a time for the same path
bool flashDirectoryEntry(const std::string& path);

} // namespace vlx::kit
