#pragma once

namespace vlx::tool
{

struct ReceiveOptions;
class StopSignal;

/// Carries out "vlx receive".
///
/// @return the exit code
/// @throws CommandFailure
int runReceive(const ReceiveOptions& options, StopSignal& stop);

} // namespace vlx::tool
