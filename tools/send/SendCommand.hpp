#pragma once

namespace vlx::tool
{

struct SendOptions;
class StopSignal;

/// Carries out "vlx send".
///
/// @return the exit code
/// @throws CommandFailure
int runSend(const SendOptions& options, StopSignal& stop);

} // namespace vlx::tool
