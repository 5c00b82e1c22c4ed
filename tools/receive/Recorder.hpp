#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "ConnectionRecord.hpp"
#include "StreamEvents.hpp"
#include "audio/AudioOutput.hpp"

namespace vlx::tool
{

struct RecorderSettings
{
    std::optional<std::chrono::nanoseconds> maxDuration; ///< of audio
    bool oneshot = false; ///< done when a connection that delivered frames is lost
};

/// How a recording stands.
enum class RecorderState : int
{
    Going,
    Done,
    Failed,
};

/// Writes what a receiver reports to an output, and keeps the account for the report. It works on a
/// thread of its own, behind a queue.
class Recorder
{
public:
    /// @param startTime  since when a sender is looked for, nanoseconds of CLOCK_MONOTONIC
    /// @param onChange   called when getState() leaves Going, on the recorder's thread
    Recorder(
        AudioOutput& output,
        const RecorderSettings& settings,
        TimeValue startTime,
        std::function<void()> onChange);

    /// Calls finish().
    ~Recorder();

    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// @return where a receiver's callbacks put their events
    StreamEventQueue& getQueue()
    {
        return m_queue;
    }

    /// @thread any
    RecorderState getState() const
    {
        return m_state;
    }

    /// @return frames that have been recorded
    /// @thread any
    std::uint64_t getNumFrames() const
    {
        return m_numFrames;
    }

    /// @return how much audio has been recorded
    /// @thread any
    std::chrono::nanoseconds getDuration() const
    {
        return std::chrono::nanoseconds(m_durationNs);
    }

    /// Records what is in the queue still, and closes the output. No event may be pushed any more.
    void finish();

    /// Adds what was recorded to a report.
    ///
    /// @pre finish() was called
    void addToReport(nlohmann::ordered_json& report) const;

private:
    void loop();
    void handle(const StreamEvent& event);
    void handleJoined();
    void handleSequence(const StreamEvent& event);
    void handleFrame(const StreamEvent& event);
    void handleEnded(const StreamEvent& event);
    void complainIfOdd(const StreamEvent& frame) const;
    std::uint64_t getSamplesLeft() const;
    void fail(const std::string& problem);
    void setState(RecorderState state);

    AudioOutput& m_output;
    const RecorderSettings m_settings;
    const std::function<void()> m_onChange;
    StreamEventQueue m_queue;
    std::atomic<RecorderState> m_state = RecorderState::Going;
    std::atomic<std::uint64_t> m_numFrames = 0;
    std::atomic<std::int64_t> m_durationNs = 0;

    // Recorder's thread, and after finish() whoever called it.
    std::optional<kit::StreamFormat> m_format; // of the whole recording
    std::uint64_t m_numSamples = 0;
    std::vector<ConnectionRecord> m_connections; // the last one may have no frames yet
    std::uint64_t m_emptyConnections = 0;        // ended without a frame
    std::string m_waitReason = "start";          // what the next join time counts from
    TimeValue m_waitBegin;
    bool m_connected = false;

    std::thread m_thread; // last: it uses all of the above
};

} // namespace vlx::tool
