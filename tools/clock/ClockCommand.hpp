#pragma once

#include <cstdint>
#include <string>

#include "common/CommonOptions.hpp"
#include "common/ExitCodes.hpp"

namespace vlx::tool
{

class StopSignal;

struct ClockOptions
{
    bool watch = false; ///< otherwise it is served
    std::string address = "127.0.0.1";
    std::uint16_t port = 0; ///< 0: any that is free
    bool json = false;
    OptionalDuration duration;
    OptionalDuration timeout;
};

CLI::App* addClockCommand(CLI::App& program, ClockOptions& options);

/// Serves this machine's monotonic clock, or shows how well one that is served can be followed.
///
/// @return the exit code
ExitCode runClock(const ClockOptions& options, StopSignal& stop);

} // namespace vlx::tool
