#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <alsa/asoundlib.h>
#include <sys/types.h>

#include <audioUtils/PcmFormat.hpp>
#include <vlxkit/Producer.hpp>
#include <vlxkit/RealTime.hpp>

namespace vlx::alsa
{

/// Parameters of a device.
struct Settings
{
    std::string name; ///< of the stream
    kit::SocketMode socketMode = kit::SocketMode::Owner;
    std::optional<uid_t> senderUser = {};
    kit::RealTime realTime = {};
    TimeSyncProtocol clock = TimeSyncProtocol::MonotonicSystemClock;
    std::string clockAddress = {};         ///< of the network clock's provider on this machine
    std::uint16_t clockPort = 0;           ///< its UDP port
    std::chrono::nanoseconds timeout = {}; ///< without a frame; zero: without limit
    bool reportsGaps = false;              ///< by an overrun, instead of filling them with silence
};

/// Reads a device's section of the ALSA configuration.
///
/// @return not set if a parameter is unknown or invalid, which has been reported
std::optional<Settings> readSettings(snd_config_t* section);

/// @return ALSA's name for a sample format
snd_pcm_format_t toAlsaFormat(audioUtils::PcmFormat format);

/// @return not set for a format that no stream has
std::optional<audioUtils::PcmFormat> toPcmFormat(snd_pcm_format_t format);

/// @return the negative error number for a failure of the kit
int toErrorNumber(kit::ErrorCode code);

} // namespace vlx::alsa
