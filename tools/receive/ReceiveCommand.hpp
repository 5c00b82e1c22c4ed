#pragma once

#include <string>

#include <vlxkit/RealTime.hpp>

#include "common/CommonOptions.hpp"

namespace vlx::tool
{

struct ReceiveOptions
{
    std::string name;
    std::string output; ///< empty if it is played
    std::string type;   ///< of the output; empty: by its extension
    std::string play;   ///< device; empty: it is recorded
    bool split = false;
    bool overwrite = false;
    bool namePattern = false;     ///< the output is a pattern for strftime()
    OptionalDuration maxDuration; ///< of a file
    bool noFill = false;
    bool oneshot = false;
    OptionalDuration duration;
    OptionalDuration timeout;
    OptionalDuration stall;
    OptionalDuration latency;
    kit::RealTime realTime;
    std::optional<uid_t> senderUser;
    std::string report;
};

/// Adds "receive" to the program.
///
/// @return the subcommand, which fills the options when it is parsed
CLI::App* addReceiveCommand(CLI::App& program, ReceiveOptions& options);

} // namespace vlx::tool
