#pragma once

#include <cstdint>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/AgeHistogram.hpp>
#include <vlxkit/Consumer.hpp>

#include "Outputs.hpp"

namespace vlx::tool
{

/// @return the sum, or the number that comes nearest to it: a sender may send any times
std::int64_t addLimited(std::int64_t a, std::int64_t b);

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
    /// Counts a frame.
    ///
    /// @return whether it begins a segment
    bool addFrame(const kit::ReceivedFrame& frame);

    /// Adds samples that have been written.
    ///
    /// @param isNew  whether they begin a segment; in another file they always do
    void addSamples(const Segment& written, bool isNew);

    nlohmann::ordered_json toJson() const;

    TimeValue waitBegin = 0;       ///< since when a sender was looked for, as a frame's arrival
    const char* ended = "running"; ///< how
    Receiver::StreamClockType clock = Receiver::StreamClockType::Undetermined;
    std::uint64_t frames = 0;
    std::uint64_t oddFrames = 0; ///< whose size is no multiple of a sample's
    std::uint64_t gaps = 0;
    std::int64_t gapNs = 0;
    TimeValue firstArrival = 0;
    kit::AgeHistogram ages = {};
    std::vector<Segment> segments = {}; ///< the first 100,000; the last of them goes on
};

} // namespace vlx::tool
