#include "ConnectionRecord.hpp"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "common/SenderReport.hpp"

namespace vlx::tool
{

namespace
{

// A sender may let its timestamps jump with each frame.
constexpr std::size_t MaxSegments = 100'000;

} // unnamed namespace

void ConnectionRecord::addFrame(
    const ReceivedFrame& frame,
    std::uint64_t samples,
    const FilePlace& place)
{
    const bool first = frames == 0;
    if (first)
        firstTime = frame.time;
    else if (frame.gapNs > 0)
    {
        ++gaps;
        gapNs = addLimited(gapNs, frame.gapNs);
    }
    else if (frame.gapNs < 0)
    {
        ++overlaps;
        overlapNs = addLimited(overlapNs, -std::max(frame.gapNs, -INT64_MAX));
    }
    ++frames;
    if (frame.data.size() % announced.format.getBytesPerSample() != 0)
        ++oddFrames;
    // Otherwise timestamp and arrival are on different clocks.
    if (announced.clock == Receiver::StreamClockType::MonotonicSystemClock)
        ages.add(static_cast<std::int64_t>(frame.time - frame.timestamp));

    const bool isNew = first || frame.gapNs != 0 || segments.back().place.file != place.file;
    if (isNew && segments.size() < MaxSegments)
        segments.push_back({place, frame.timestamp, 0});
    segments.back().samples += samples;
}

void ConnectionRecord::continueIn(
    const FilePlace& place,
    std::uint64_t samples,
    const kit::StreamFormat& format)
{
    if (segments.empty() || segments.size() >= MaxSegments)
        return;
    Segment& last = segments.back();
    last.samples -= std::min(samples, last.samples);
    segments.push_back({place, last.timestamp + format.toNanoseconds(last.samples), samples});
}

nlohmann::ordered_json ConnectionRecord::toJson() const
{
    nlohmann::ordered_json stretches = nlohmann::ordered_json::array();
    for (const Segment& segment : segments)
        stretches.push_back(
            {{"file", segment.place.file},
             {"file_sample", segment.place.sample},
             {"timestamp", segment.timestamp},
             {"samples", segment.samples}});

    nlohmann::ordered_json json = {
        {"joined_after", joinedAfter},
        {"join_ns", firstTime - waitBegin},
        {"ended", ended},
        {"clock", toClockName(announced.clock)},
        {"frames", frames},
        {"odd_frames", oddFrames},
        {"gaps", gaps},
        {"gap_ns", gapNs},
        {"overlaps", overlaps},
        {"overlap_ns", overlapNs},
        {"first_timestamp", segments.empty() ? nlohmann::ordered_json()
                                             : nlohmann::ordered_json(segments.front().timestamp)},
        {"segments", stretches}};
    addAges(json, ages);
    return json;
}

} // namespace vlx::tool
