#pragma once

#include "common/CommonOptions.hpp"
#include "common/ExitCodes.hpp"

namespace vlx::tool
{

class StopSignal;

/// It has none of its own.
struct CheckOptions
{
};

CLI::App* addCheckCommand(CLI::App& program, CheckOptions& options);

/// Looks whether this machine is fit for streams: one line for each thing that is looked at.
///
/// @return the exit code
ExitCode runCheck(const CheckOptions& options, StopSignal& stop);

} // namespace vlx::tool
