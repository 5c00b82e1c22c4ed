#pragma once

#include <string>

namespace vlx::kit
{

/// Removes the directories that dead producers of the caller's user have left in a base directory:
/// those whose lock is free again. Fast: it contacts no process.
///
/// @thread any
void removeOwnDeadDirectories(const std::string& baseDirectory);

} // namespace vlx::kit
