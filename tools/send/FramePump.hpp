#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <vlxkit/Pace.hpp>
#include <vlxkit/Producer.hpp>
#include <vlxkit/StreamFormat.hpp>

#include "SendReport.hpp"
#include "common/Poll.hpp"

namespace vlx::tool
{

class Playlist;
class StopSignal;
class StreamClock;
struct SendOptions;

/// Sends an input as a stream, frame by frame at its own pace.
///
/// Each frame is due when the stream's clock shows its timestamp; see kit::Pace. A pump that has
/// fallen behind a little catches up at twice the pace. One that has fallen far behind, because its
/// input or the whole process was stopped or no pipeline receiver was there, begins a new run,
/// whose timestamps start from the present, and so does one whose clock has jumped. A second later,
/// when receivers that waited for it have joined again, it opens a new sequence for those that lost
/// track.
///
/// A live input is read ahead while the pump waits, so that the program that makes the samples is
/// never held up by a full pipe. If it does not deliver more than is needed, it has a clock of its
/// own, and the timestamps follow its rate.
class FramePump
{
public:
    /// All parameters must outlive the pump.
    ///
    /// @param report  counts frames and samples, and lists the runs; it is written at the beginning
    ///                of each, before its first frame
    FramePump(
        const SendOptions& options,
        Playlist& input,
        StreamClock& clock,
        const StopSignal& stop,
        SendReport& report);

    /// Opens the stream, sends until the end of the input, the limit or a stop, and closes it.
    ///
    /// @throws CommandFailure if the stream cannot be opened, its format cannot change, or too few
    ///         receivers come in time
    void run();

private:
    using SteadyTime = std::chrono::steady_clock::time_point;

    bool check(const kit::Status& status) const;
    void sendFrames();
    bool waitForReceivers(std::size_t count);
    void showWaiting() const;
    void takeFormat();
    bool changeFormat();
    std::size_t readFrame();
    std::uint64_t getSamplesLeft() const;
    bool takeInput(const Deadline& deadline);
    bool waitUntilDue();
    void handleLateness(SteadyTime now);
    void beginRun(SteadyTime now);
    void reportRun();
    void announceIfDue();
    void holdFrame();
    bool sendFrame(std::size_t numSamples);
    void showProgress();
    std::string describeProgress() const;
    TimeValue getStreamTime() const;

    const SendOptions& m_options;
    Playlist& m_input;
    StreamClock& m_clock;
    const StopSignal& m_stop;
    SendReport& m_report;

    kit::StreamFormat m_format;
    std::size_t m_samplesPerFrame = 0;
    std::uint64_t m_samplesOfFormat = 0; // sent
    TimeValue m_nsOfFormerFormats = 0;
    Buffer m_frame;
    std::size_t m_samplesInHand = 0; // read, and not sent yet

    kit::Pace m_pace;                         // without latency
    bool m_running = false;                   // a run has begun
    std::optional<SteadyTime> m_announceTime; // not set: no new sequence is due
    std::size_t m_numReceivers = 0;
    std::size_t m_numAwaited = 0; // receivers; 0 while frames are sent
    SteadyTime m_nextProgress;
    kit::Producer m_producer; // last: its callback uses the above
};

} // namespace vlx::tool
