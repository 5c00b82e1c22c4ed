#pragma once

#include <string>
#include <vector>

#include <vlxkit/RealTime.hpp>

#include "common/CommonOptions.hpp"
#include "common/ExitCodes.hpp"

namespace vlx::tool
{

class StopSignal;

struct MonitorOptions
{
    std::vector<std::string> names;
    bool json = false;
    std::string metrics; ///< path; empty: none
    OptionalDuration duration;
    OptionalDuration timeout;
    kit::RealTime realTime;
    std::optional<uid_t> senderUser;
};

CLI::App* addMonitorCommand(CLI::App& program, MonitorOptions& options);

/// Shows streams live until it is stopped.
///
/// @return the exit code
ExitCode runMonitor(const MonitorOptions& options, StopSignal& stop);

} // namespace vlx::tool
