#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <miscUtils/SyncedNetClock.hpp>
#include <vlxkit/Consumer.hpp>

#include "audio/PcmCodec.hpp"
#include "common/SenderReport.hpp"

namespace vlx::tool
{

/// Level of one channel, as parts of full scale.
struct ChannelLevel
{
    double peak = 0;
    double rms = 0;
    double heldPeak = 0; ///< highest of the last seconds
};

/// Measures the levels of a stream's channels over intervals.
///
/// @thread one at a time
class LevelMeter
{
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Begins anew with so many channels.
    void setChannels(std::size_t number);

    /// Adds samples, as parts of full scale, the channels of one sample side by side.
    void add(const std::vector<float>& values);

    /// Ends an interval.
    ///
    /// @return a level for each channel; nothing if no samples came since the last call
    std::vector<ChannelLevel> take(TimePoint now);

private:
    /// Sums of one channel since the last call.
    struct Channel
    {
        double peak = 0;
        double squares = 0;
        std::uint64_t samples = 0;
        double heldPeak = 0;
        TimePoint heldSince;
    };

    std::vector<Channel> m_channels;
};

/// A stream as it was during one interval.
struct StreamSnapshot
{
    std::string name;
    std::string state;                     ///< such as "running", or what keeps it from running
    std::string notice;                    ///< the last event's line; empty if there was none
    std::optional<FoundSender> announced;  ///< set for a stream that is not joined
    std::optional<kit::CodecFormat> codec; ///< set if the frames are not PCM
    kit::ConsumerStatistics total;
    kit::AgeHistogram totalAges;
    // Of the interval.
    double seconds = 0;
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
    kit::AgeHistogram ages;
    std::vector<ChannelLevel> levels; ///< one per channel; empty without frames
};

/// Consumes one stream and measures it.
///
/// @thread one, for what is public
class StreamMeter
{
public:
    /// @param onEvent  called with a line for the user, on a thread of the consumer's
    StreamMeter(
        const kit::ConsumerOptions& options,
        std::function<void(const std::string&)> onEvent);

    /// @throws CommandFailure
    void start();

    /// @return what happened since the last call
    StreamSnapshot takeSnapshot();

private:
    using SteadyClock = std::chrono::steady_clock;

    void handleFormat(const kit::StreamFormat& format);
    void handleCodec(const kit::CodecFormat& codec);
    void handleFrame(const kit::Frame& frame);
    void handleEvent(const kit::ConsumerEvent& event);
    void lookAtClock(kit::ConsumerStatistics& statistics);

    const std::string m_name;
    const std::function<void(const std::string&)> m_onEvent;

    // Of the receiving thread.
    kit::StreamFormat m_format;
    std::vector<float> m_levels; // of a frame

    std::mutex m_mutex;
    // Guarded by m_mutex.
    LevelMeter m_levelMeter;
    std::optional<kit::CodecFormat> m_codec; // unless PCM; set by the receiving thread
    std::string m_obstacle;                  // what keeps the stream from running
    std::string m_notice;

    // Follows the stream's network clock beside the consumer, which cannot tell when it is lost.
    miscUtils::SyncedNetClock m_netClock;
    std::pair<std::string, std::uint16_t> m_provider; // that it follows

    // At the last snapshot.
    kit::ConsumerStatistics m_before;
    kit::AgeHistogram m_agesBefore;
    SteadyClock::time_point m_snapshotTime = SteadyClock::now();

    kit::Consumer m_consumer; // last: its threads use all of the above
};

} // namespace vlx::tool
