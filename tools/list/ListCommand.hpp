#pragma once

#include "common/CommonOptions.hpp"
#include "common/ExitCodes.hpp"

namespace vlx::tool
{

class StopSignal;

struct ListOptions
{
    bool json = false;
    bool clean = false;
};

CLI::App* addListCommand(CLI::App& program, ListOptions& options);

/// Prints the senders of this machine, or removes what dead ones have left.
///
/// @return the exit code
ExitCode runList(const ListOptions& options, StopSignal& stop);

} // namespace vlx::tool
