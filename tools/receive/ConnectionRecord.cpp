#include "ConnectionRecord.hpp"

#include <limits>

#include <nlohmann/json.hpp>

#include "common/SenderReport.hpp"

namespace vlx::tool
{

std::int64_t addLimited(std::int64_t a, std::int64_t b)
{
    using Limits = std::numeric_limits<std::int64_t>;
    std::int64_t sum = 0;
    return !__builtin_add_overflow(a, b, &sum) ? sum : b < 0 ? Limits::min() : Limits::max();
}

bool ConnectionRecord::addFrame(const kit::ReceivedFrame& frame)
{
    const bool isFirst = frames++ == 0;
    if (isFirst)
    {
        firstArrival = frame.arrival;
        clock = frame.clock;
    }
    else if (frame.gapNs > 0)
    {
        ++gaps;
        gapNs = addLimited(gapNs, frame.gapNs);
    }
    if (const auto time = frame.getMonotonicTime())
        ages.add(static_cast<std::int64_t>(frame.arrival - *time));
    return isFirst || frame.gapNs != 0;
}

void ConnectionRecord::addSamples(const Segment& written, bool isNew)
{
    // A sender may let its timestamps jump with each frame.
    constexpr std::size_t MaxSegments = 100'000;
    if (segments.empty() || ((isNew || segments.back().place.file != written.place.file) &&
                             segments.size() < MaxSegments))
        segments.push_back(written);
    else
        segments.back().samples += written.samples;
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
        {"join_ns", firstArrival - waitBegin},
        {"ended", ended},
        {"clock", toClockName(clock)},
        {"frames", frames},
        {"odd_frames", oddFrames},
        {"gaps", gaps},
        {"gap_ns", gapNs},
        {"segments", stretches}};
    addAges(json, ages);
    return json;
}

} // namespace vlx::tool
