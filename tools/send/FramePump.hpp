#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxTypes.hpp>
#include <vlxkit/StreamFormat.hpp>

#include "SendReport.hpp"

namespace vlx::kit
{
class Producer;
} // namespace vlx::kit

namespace vlx::tool
{

class Playlist;
class StopSignal;
class StreamClock;
struct SendOptions;

/// Sends an input frame by frame at its own pace.
///
/// Each frame is due when the stream's clock shows its timestamp, which follows from the number of
/// samples before it, so that rounding never adds up. A pump that has fallen behind a little catches
/// up with twice the pace at most, since what a receiver cannot take at once is lost to it. One that
/// has fallen far behind, because its input or the whole process was stopped or no pipeline receiver
/// was there, begins a new run, whose timestamps start from the present, and so does one whose clock
/// has jumped. A second later, when receivers that waited for it have joined again, it opens a new
/// sequence for those that lost track.
///
/// An input that makes its samples now has a clock of its own. Where it is slower than the stream's,
/// the timestamps are moved along by a slope.
class FramePump
{
public:
    /// @param producer  open with the payloader
    /// @param report    counts frames and samples, and gets the runs; it is written at the beginning
    ///                  of each, before its first frame
    FramePump(
        kit::Producer& producer,
        PcmPayloader& payloader,
        Playlist& input,
        StreamClock& clock,
        const StopSignal& stop,
        SendReport& report,
        const SendOptions& options);

    /// Sends until the end of the input, the limit or a stop.
    ///
    /// @throws CommandFailure if too few receivers came in time
    void run();

    /// @return one line about how far it has come
    std::string describeProgress() const;

private:
    using SteadyTime = std::chrono::steady_clock::time_point;

    bool waitForReceivers(std::size_t count);
    void takeFormat();
    bool changeFormat();
    std::size_t readFrame();
    bool waitUntilDue();
    void handleLateness(SteadyTime now);
    void followInput(std::chrono::nanoseconds lateness, SteadyTime now);
    void beginRun(TimeValue timestamp);
    void announce();
    bool sendFrame(std::size_t numSamples);
    void showProgress();
    SteadyTime getDueTime() const;
    TimeValue getTimestamp(std::size_t numSamples = 0) const;

    kit::Producer& m_producer;
    PcmPayloader& m_payloader;
    Playlist& m_input;
    StreamClock& m_clock;
    const StopSignal& m_stop;
    SendReport& m_report;
    const SendOptions& m_options;

    kit::StreamFormat m_format;
    std::size_t m_samplesPerFrame = 0;
    std::optional<std::uint64_t> m_samplesLeft; // of this format, until the limit
    std::uint64_t m_samplesOfFormat = 0;
    TimeValue m_nsOfFormerFormats = 0;
    Buffer m_frame;

    bool m_running = false;         // a run has begun
    TimeValue m_runTimestamp = 0;   // without latency
    std::uint64_t m_runSamples = 0; // sent in it
    TimeValue m_slope = 0;          // that the timestamps were moved by since the report's last run
    SteadyTime m_lastSlope;
    bool m_waitedForInput = false;            // the frame became due while it was read
    SteadyTime m_earliest;                    // when the next frame may be sent, due or not
    std::optional<SteadyTime> m_announceTime; // unset: no new sequence is due
    std::size_t m_numReceivers = 0;
    SteadyTime m_nextProgress;
};

} // namespace vlx::tool
