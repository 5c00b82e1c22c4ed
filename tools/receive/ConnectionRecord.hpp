#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/AgeHistogram.hpp>

#include "StreamEvents.hpp"

namespace vlx::tool
{

/// Where a frame goes in the recording.
struct FilePlace
{
    std::size_t file = 0;     ///< number of the file, from 0
    std::uint64_t sample = 0; ///< counted from the beginning of that file
};

/// A stretch of the recording in which each frame's timestamp continues the one before.
struct Segment
{
    FilePlace place;     ///< of its first sample
    TimeValue timestamp; ///< of that sample
    std::uint64_t samples;
};

/// What one connection delivered, from joining a sender to losing it.
///
/// @thread one at a time
class ConnectionRecord
{
public:
    /// @param joinedAfter  what the join time counts from, such as "start"
    /// @param waitBegin    since when a sender was looked for, nanoseconds of CLOCK_MONOTONIC
    ConnectionRecord(std::string joinedAfter, TimeValue waitBegin);

    void setFormat(const AnnouncedFormat& announced)
    {
        m_announced = announced;
    }

    /// Counts a frame, before it is written.
    ///
    /// @param samples  that go into the recording
    /// @param place    where the first of them goes
    /// @pre setFormat() was called
    void addFrame(const ReceivedFrame& frame, std::uint64_t samples, const FilePlace& place);

    /// @param how  such as "lost"
    void end(const char* how)
    {
        m_ended = how;
    }

    std::uint64_t getNumFrames() const
    {
        return m_frames;
    }

    /// @return frames whose size was no multiple of a sample's
    std::uint64_t getNumOddFrames() const
    {
        return m_oddFrames;
    }

    nlohmann::ordered_json toJson() const;

private:
    const std::string m_joinedAfter;
    const TimeValue m_waitBegin;
    AnnouncedFormat m_announced{};
    TimeValue m_firstFrameTime = 0;
    std::uint64_t m_frames = 0;
    std::uint64_t m_oddFrames = 0;
    std::uint64_t m_gaps = 0;
    std::int64_t m_gapNs = 0;
    std::uint64_t m_overlaps = 0;
    std::int64_t m_overlapNs = 0;
    TimeValue m_firstTimestamp = 0;
    kit::AgeHistogram m_ages;
    std::vector<Segment> m_segments;
    std::string m_ended = "running";
};

} // namespace vlx::tool
