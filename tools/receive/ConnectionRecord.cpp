#include "ConnectionRecord.hpp"

#include <nlohmann/json.hpp>

#include "common/SenderReport.hpp"

namespace vlx::tool
{

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
        gapNs += frame.gapNs;
    }
    else if (frame.gapNs < 0)
    {
        ++overlaps;
        overlapNs -= frame.gapNs;
    }
    ++frames;
    if (frame.data.size() % announced.format.getBytesPerSample() != 0)
        ++oddFrames;
    // Only then do timestamp and arrival stand on one clock.
    if (announced.clock == Receiver::StreamClockType::MonotonicSystemClock)
        ages.add(static_cast<std::int64_t>(frame.time - frame.timestamp));

    if (first || frame.gapNs != 0 || segments.back().place.file != place.file)
        segments.push_back({place, frame.timestamp, 0});
    segments.back().samples += samples;
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
        {"first_timestamp", segments.front().timestamp},
        {"segments", stretches}};
    addAges(json, ages);
    return json;
}

} // namespace vlx::tool
