#pragma once

#include "common/ExitCodes.hpp"

namespace vlx::tool
{

struct SendOptions;
class StopSignal;

/// Carries out "vlx send".
///
/// @return the exit code
/// @throws CommandFailure
ExitCode runSend(const SendOptions& options, StopSignal& stop);

} // namespace vlx::tool
