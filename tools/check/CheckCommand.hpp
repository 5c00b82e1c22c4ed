#pragma once

#include "common/CommonOptions.hpp"
#include "common/ExitCodes.hpp"

namespace vlx::tool
{

class StopSignal;

/// Empty: there are only the common options.
struct CheckOptions
{
};

CLI::App* addCheckCommand(CLI::App& program, CheckOptions& options);

/// Checks whether this machine is fit for streams: one line for each check.
///
/// @return the exit code
ExitCode runCheck(const CheckOptions& options, StopSignal& stop);

} // namespace vlx::tool
