#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include <vlxkit/Consumer.hpp>

#include "ConnectionRecord.hpp"
#include "Outputs.hpp"

namespace vlx::tool
{

/// Finds out when the frames of a stream are due on CLOCK_MONOTONIC.
class PlayClock
{
public:
    /// @return the frame's timestamp on CLOCK_MONOTONIC; without the stream's clock its arrival,
    ///         smoothed
    TimeValue get(const kit::ReceivedFrame& frame);

private:
    TimeValue m_received = 0;  // sum of durations: stands in for timestamps without a clock
    std::int64_t m_offset = 0; // of CLOCK_MONOTONIC against the time that frames count from
};

/// Writes what a consumer has received to the outputs, and keeps the account for the report.
///
/// @throws CommandFailure from whatever writes: the recording has failed then
/// @thread one at a time
class Recorder
{
public:
    /// Opens the first output.
    ///
    /// @param startTime  since when a sender is looked for, nanoseconds of CLOCK_MONOTONIC
    Recorder(const RecordingOptions& options, const OutputWaits& waits, TimeValue startTime);

    void add(const kit::StreamFormat& format);
    void add(const kit::ReceivedFrame& frame);
    /// @param event  Joined, Lost or Stalled
    void add(const kit::ConsumerEvent& event);

    /// Does what a playing device needs every WorkInterval.
    void work()
    {
        m_outputs.work();
    }

    /// Ends the recording. Nothing may be added any more.
    void finish();

    /// @return whether everything that is wanted has been recorded
    bool isDone() const
    {
        return m_isDone;
    }

    /// @return frames that have been recorded
    std::uint64_t getNumFrames() const
    {
        return m_numFrames;
    }

    /// @return how far the recording is, in words
    std::string describeProgress() const;

    /// @return what was recorded and what is missing, in one line. After finish()
    std::string summarize() const;

    /// Adds what was recorded to a report. After finish().
    void addToReport(nlohmann::ordered_json& report) const;

private:
    ConnectionRecord& getConnection();
    void endConnection(const char* how, TimeValue time);
    bool isNextOutputWanted(const kit::StreamFormat& format) const;
    void sayPresence();
    void fillGap(const kit::ReceivedFrame& frame);
    void write(const kit::ReceivedFrame& frame);
    bool isStopOverdue();

    const RecordingOptions& m_options;
    const StopSignal& m_stop;
    const bool m_fills = m_options.play.empty() && !m_options.noFill; // gaps, with silence
    Outputs m_outputs;
    PlayClock m_playClock;
    std::optional<kit::StreamFormat> m_nextFormat; // of an output that begins with its first frame
    bool m_isDone = false;
    std::uint64_t m_numFrames = 0;
    std::uint64_t m_numGaps = 0;
    std::int64_t m_gapNs = 0;
    std::int64_t m_fillRestNs = 0; // of gaps, below one sample
    std::int64_t m_silenceNs = 0;  // that gaps were filled with
    std::int64_t m_unfilledNs = 0;
    std::uint64_t m_numLost = 0;                 // frames: dropped, or left at a stop
    Deadline m_graceEnd;                         // set once a stop is seen
    std::vector<ConnectionRecord> m_connections; // the last one may have no frames yet
    TimeValue m_waitBegin;                       // what the next join time counts from
    TimeValue m_firstArrival = 0;
    bool m_connected = false;
    bool m_absenceSaid = false;
    bool m_stallSaid = false;
};

} // namespace vlx::tool
