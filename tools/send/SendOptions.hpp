#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <vlxkit/Producer.hpp>

#include "StreamClock.hpp"
#include "audio/AudioInput.hpp"
#include "common/CommonOptions.hpp"

namespace vlx::tool
{

struct SendOptions
{
    std::string name;
    std::vector<std::string> inputs;
    InputSettings input;
    bool loop = false;
    OptionalDuration frame = std::chrono::milliseconds(10);
    OptionalDuration duration;
    OptionalDuration latency = std::chrono::nanoseconds(0); ///< added to every timestamp
    std::size_t waitReceivers = 0;                          ///< before the first frame
    OptionalDuration timeout;                               ///< of each wait
    NanomsgProtocol protocol = NanomsgProtocol::PubSub;
    kit::SocketMode socketMode = kit::SocketMode::Owner;
    kit::Carriage carriage = kit::Carriage::Inline;
    ClockChoice clock = ClockChoice::System;
    std::string clockAddress;
    std::uint16_t clockPort = 0;
    kit::RealTime realTime;
    std::string report;
};

} // namespace vlx::tool
