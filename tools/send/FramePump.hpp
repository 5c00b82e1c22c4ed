#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxTypes.hpp>
#include <vlxkit/Pace.hpp>
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
    /// @param producer  open with the payloader
    /// @param report    counts frames and samples, and lists the runs; it is written at the
    ///                  beginning of each, before its first frame
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
    bool takeInput(const std::optional<std::chrono::steady_clock::time_point>& deadline);
    bool waitUntilDue();
    void handleLateness(SteadyTime now);
    void beginRun(SteadyTime now);
    TimeValue getBacklog() const;
    void reportRun();
    void announce();
    bool sendFrame(std::size_t numSamples);
    void showProgress();
    TimeValue getStreamTime() const;

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
    std::size_t m_samplesInHand = 0; // read, and not sent yet

    kit::Pace m_pace;                         // without latency
    bool m_running = false;                   // a run has begun
    std::optional<SteadyTime> m_announceTime; // unset: no new sequence is due
    std::size_t m_numReceivers = 0;
    SteadyTime m_nextProgress;
};

} // namespace vlx::tool
