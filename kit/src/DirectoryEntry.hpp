#pragma once

#include <string>

namespace vlx::kit
{

/// Makes an empty file and removes it again at once, for whoever watches its directory. Nobody can
/// be in its way: its name ends in characters that cannot be foreseen.
///
/// @param prefix  path, as far as it is given
/// @return whether it was made; otherwise errno tells why
/// @thread any
bool flashDirectoryEntry(const std::string& prefix);

} // namespace vlx::kit
