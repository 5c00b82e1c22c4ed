#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <SocketFile.hpp>
#include <vlxkit/StreamFormat.hpp>

#include <vlx/SideChannel.hpp>

#include "common/CommonOptions.hpp"

namespace vlx::tool
{

struct SendOptions
{
    CommonOptions common;
    std::string name;
    std::string input;
    bool raw = false;
    bool formatGiven = false;
    kit::StreamFormat format; ///< of raw input or tone
    std::optional<double> toneHz;
    bool loop = false;
    std::optional<std::chrono::nanoseconds> frame;
    std::optional<std::chrono::nanoseconds> duration;
    std::size_t waitReceivers = 0;
    std::optional<std::chrono::nanoseconds> timeout;
    NanomsgProtocol protocol = NanomsgProtocol::PubSub;
    kit::SocketMode socketMode = kit::SocketMode::All;
    std::string clockAddress;
    std::uint16_t clockPort = 0; ///< 0: timestamps stand on the system's monotonic clock
    std::string report;
};

/// Adds "send" to the program.
///
/// @return the subcommand, which fills the options when it is parsed
CLI::App* addSendCommand(CLI::App& program, SendOptions& options);

} // namespace vlx::tool
