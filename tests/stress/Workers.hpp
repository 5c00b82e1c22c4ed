#pragma once

#include "Fleet.hpp"

namespace vlx::stress
{

/// The main program of a worker process.
///
/// @return its exit code, an ExitCode
int runWorker(SharedBlock& block, std::size_t index);

/// The roles that are no sender and no receiver.
int runHostilePeer(Slot& slot);

} // namespace vlx::stress
