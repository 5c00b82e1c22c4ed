#pragma once

#include <cstdint>
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
struct ConnectionRecord
{
    /// Counts a frame, before it is written.
    ///
    /// @param samples  that go into the recording
    /// @param place    where the first of them goes
    void addFrame(const ReceivedFrame& frame, std::uint64_t samples, const FilePlace& place);

    /// Notes that the last frame goes on in another file.
    ///
    /// @param place    where it goes on
    /// @param samples  of the frame that stand there
    void continueIn(const FilePlace& place, std::uint64_t samples, const kit::StreamFormat& format);

    nlohmann::ordered_json toJson() const;

    const char* joinedAfter = "start"; ///< what the join time counts from
    TimeValue waitBegin = 0;           ///< since when a sender was looked for, as a frame's time
    AnnouncedFormat announced{};       ///< known before the first frame
    const char* ended = "running";     ///< how
    std::uint64_t frames = 0;
    std::uint64_t oddFrames = 0; ///< whose size was no multiple of a sample's
    std::uint64_t gaps = 0;
    std::int64_t gapNs = 0;
    std::uint64_t overlaps = 0;
    std::int64_t overlapNs = 0;
    TimeValue firstTime = 0; ///< of the first frame's arrival
    kit::AgeHistogram ages = {};
    std::vector<Segment> segments = {}; ///< the first 100,000; the last of them goes on
};

} // namespace vlx::tool
