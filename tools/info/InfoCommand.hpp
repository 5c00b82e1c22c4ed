#pragma once

#include <string>

#include "common/CommonOptions.hpp"
#include "common/ExitCodes.hpp"

namespace vlx::tool
{

class StopSignal;

struct InfoOptions
{
    std::string name;
    bool json = false;
    OptionalDuration timeout;
};

CLI::App* addInfoCommand(CLI::App& program, InfoOptions& options);

/// Prints what a sender announces to its receivers.
///
/// @return the exit code
ExitCode runInfo(const InfoOptions& options, StopSignal& stop);

} // namespace vlx::tool
