#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "ConnectionRecord.hpp"
#include "FileNames.hpp"
#include "ReceiveCommand.hpp"
#include "StreamEvents.hpp"
#include "audio/AudioOutput.hpp"

namespace vlx::tool
{

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
    /// Opens the first output.
    ///
    /// @param startTime  since when a sender is looked for, nanoseconds of CLOCK_MONOTONIC
    /// @throws CommandFailure
    Recorder(const ReceiveOptions& options, const OutputWaits& waits, TimeValue startTime);

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

    /// @return samples that have been written, silence included
    /// @thread any
    std::uint64_t getNumSamples() const
    {
        return m_numSamples;
    }

    /// @return how far the recording is, in words
    /// @thread any
    std::string describeProgress() const;

    /// Records what is in the queue still, and closes the output. No event may be pushed any more.
    void finish();

    /// @return what was recorded and what is missing, in one line
    /// @pre finish() was called
    std::string summarize() const;

    /// Adds what was recorded to a report.
    ///
    /// @pre finish() was called
    void addToReport(nlohmann::ordered_json& report) const;

private:
    std::unique_ptr<AudioOutput> openFirstOutput();
    std::unique_ptr<AudioOutput> openOutput();
    void work();
    void attempt(const std::function<void()>& work);
    void handle(const ReceivedFrame& frame);
    void handle(const AnnouncedFormat& announced);
    void handle(const kit::ConsumerEvent& event);
    ConnectionRecord& getConnection();
    void endConnection(const char* how, const char* nextReason, TimeValue time);
    bool isNextOutputWanted(const kit::StreamFormat& format) const;
    void startOutput(const kit::StreamFormat& format);
    void continueInNextOutput();
    void closeOutput();
    void sayPresence();
    void fillGap(const ReceivedFrame& frame);
    void write(const ByteView& bytes, TimeValue time);
    void complainIfOdd(const ReceivedFrame& frame) const;
    bool continueWhenFull();
    std::uint64_t getSamplesLeftInFile() const;
    bool isStopOverdue();
    std::uint64_t getSamplesLeft() const;

    std::uint64_t getNumLost() const
    {
        return m_queue.getNumDropped() + m_numCut;
    }

    const ReceiveOptions& m_options;
    const OutputWaits m_waits;
    const bool m_fills = m_options.play.empty() && !m_options.noFill; // gaps, with silence
    StreamEventQueue m_queue;
    std::atomic<RecorderState> m_state = RecorderState::Going;
    std::atomic<std::uint64_t> m_numFrames = 0;
    std::atomic<std::uint64_t> m_numSamples = 0; // in all outputs
    std::atomic<std::uint64_t> m_numGaps = 0;
    std::atomic<std::int64_t> m_durationNs = 0;

    // Recorder's thread, and after finish() its caller.
    FilePlace m_place;    // of what is written next
    TimeValue m_time = 0; // of arrival of what is written next
    FileNames m_names;
    std::vector<std::string> m_files; // that were opened
    std::unique_ptr<AudioOutput> m_output;
    std::vector<std::unique_ptr<AudioOutput>> m_closedOutputs; // for the report
    std::optional<kit::StreamFormat> m_format;                 // of the output
    std::optional<kit::StreamFormat> m_nextFormat;             // of a further output
    std::int64_t m_closedNs = 0;                               // length of closed outputs
    std::int64_t m_gapNs = 0;
    std::int64_t m_fillRestNs = 0; // of gaps, below one sample
    std::int64_t m_silenceNs = 0;  // that gaps were filled with
    std::int64_t m_unfilledNs = 0;
    bool m_unfilledSaid = false;
    std::uint64_t m_numCut = 0;                  // frames left at a stop
    Deadline m_graceEnd;                         // set once a stop is seen
    std::vector<ConnectionRecord> m_connections; // the last one may have no frames yet
    std::uint64_t m_emptyConnections = 0;        // ended without a frame
    const char* m_waitReason = "start";          // what the next join time counts from
    TimeValue m_waitBegin;
    TimeValue m_firstTime = 0; // of the first frame's arrival
    AnnouncedFormat m_announced{};
    bool m_connected = false;
    bool m_absenceSaid = false;
    bool m_stallSaid = false;

    std::thread m_thread; // last: it uses all of the above
};

} // namespace vlx::tool
