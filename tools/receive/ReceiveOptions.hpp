#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "common/CommonOptions.hpp"

namespace vlx::tool
{

struct ReceiveOptions
{
    CommonOptions common;
    std::string name;
    std::string output;
    bool raw = false;
    bool oneshot = false;
    std::optional<std::chrono::nanoseconds> duration;
    std::optional<std::chrono::nanoseconds> timeout;
    std::optional<std::chrono::nanoseconds> stall;
    std::string report;
};

/// Adds "receive" to the program.
///
/// @return the subcommand, which fills the options when it is parsed
CLI::App* addReceiveCommand(CLI::App& program, ReceiveOptions& options);

} // namespace vlx::tool
