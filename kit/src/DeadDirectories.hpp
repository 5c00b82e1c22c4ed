#pragma once

#include <string>

namespace vlx::kit
{

/// Removes from a base directory what dead producers of the caller's user have left: the
/// directories whose lock is free again. Takes no time to speak of, and asks no process.
///
/// @thread any
void removeOwnDeadDirectories(const std::string& baseDirectory);

} // namespace vlx::kit
