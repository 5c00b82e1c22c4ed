#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include <vlx/VlxTypes.hpp>

#include "SendReport.hpp"

namespace vlx
{
class Sender;
}

namespace vlx::kit
{
class SequenceAnnouncer;
}

namespace vlx::tool
{

class AudioInput;
class StopSignal;
class StreamClock;

struct PumpSettings
{
    std::size_t samplesPerFrame = 0;
    std::optional<std::uint64_t> maxSamples;
    bool loop = false;
};

/// Sends an input frame by frame at its own pace.
///
/// Each frame has an absolute deadline and a timestamp, both computed from the number of samples
/// before it, so that rounding never adds up. A pump that has fallen far behind, because its input
/// or the whole process was stopped or no pipeline receiver was there, does not rush through what it
/// missed: it begins a new run, whose timestamps start from the present. A second later, when
/// receivers that waited for it have joined again, it opens a new sequence for those that lost track.
class FramePump
{
public:
    /// @param report       counts frames and samples, and gets the runs
    /// @param onRunBegins  called when a run was added to the report, before its first frame
    FramePump(
        Sender& sender,
        kit::SequenceAnnouncer& announcer,
        AudioInput& input,
        const StreamClock& clock,
        StopSignal& stop,
        SendReport& report,
        std::function<void()> onRunBegins);

    /// Sends until the end of the input, the limit or a stop.
    void run(const PumpSettings& settings);

private:
    std::size_t readFrame(const PumpSettings& settings);
    bool waitForDeadline();
    void beginRun(std::chrono::steady_clock::time_point now);
    void announce();
    void sendFrame(std::size_t numSamples);
    void showProgress();

    std::uint64_t getSamplesInRun() const;

    Sender& m_sender;
    kit::SequenceAnnouncer& m_announcer;
    AudioInput& m_input;
    const StreamClock& m_clock;
    StopSignal& m_stop;
    SendReport& m_report;
    const std::function<void()> m_onRunBegins;
    Buffer m_frame;
    std::chrono::steady_clock::time_point m_runStart; // of the last run in the report
    std::optional<std::chrono::steady_clock::time_point> m_newSequenceTime; // unset: none is due
    std::size_t m_numReceivers = 0;
    std::chrono::steady_clock::time_point m_nextProgress;
};

} // namespace vlx::tool
