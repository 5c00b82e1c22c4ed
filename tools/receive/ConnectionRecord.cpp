#include "ConnectionRecord.hpp"

#include <utility>

#include <nlohmann/json.hpp>

#include "common/SenderReport.hpp"

namespace vlx::tool
{

ConnectionRecord::ConnectionRecord(std::string joinedAfter, TimeValue waitBegin)
    : m_joinedAfter(std::move(joinedAfter)), m_waitBegin(waitBegin)
{
}

void ConnectionRecord::addFrame(
    const ReceivedFrame& frame,
    std::uint64_t samples,
    const FilePlace& place)
{
    const bool first = m_frames == 0;
    if (first)
    {
        m_firstFrameTime = frame.time;
        m_firstTimestamp = frame.timestamp;
    }
    else if (frame.gapNs > 0)
    {
        ++m_gaps;
        m_gapNs += frame.gapNs;
    }
    else if (frame.gapNs < 0)
    {
        ++m_overlaps;
        m_overlapNs -= frame.gapNs;
    }
    ++m_frames;
    if (frame.data.size() % m_announced.format.getBytesPerSample() != 0)
        ++m_oddFrames;
    // Only then do timestamp and arrival stand on one clock.
    if (m_announced.clock == Receiver::StreamClockType::MonotonicSystemClock)
        m_ages.add(static_cast<std::int64_t>(frame.time - frame.timestamp));

    if (first || frame.gapNs != 0 || m_segments.back().place.file != place.file)
        m_segments.push_back({place, frame.timestamp, 0});
    m_segments.back().samples += samples;
}

nlohmann::ordered_json ConnectionRecord::toJson() const
{
    nlohmann::ordered_json segments = nlohmann::ordered_json::array();
    for (const Segment& segment : m_segments)
        segments.push_back(
            {{"file", segment.place.file},
             {"file_sample", segment.place.sample},
             {"timestamp", segment.timestamp},
             {"samples", segment.samples}});

    nlohmann::ordered_json json = {
        {"joined_after", m_joinedAfter},
        {"join_ns", m_firstFrameTime - m_waitBegin},
        {"ended", m_ended},
        {"clock", toString(m_announced.clock)},
        {"frames", m_frames},
        {"odd_frames", m_oddFrames},
        {"gaps", m_gaps},
        {"gap_ns", m_gapNs},
        {"overlaps", m_overlaps},
        {"overlap_ns", m_overlapNs},
        {"first_timestamp", m_firstTimestamp},
        {"segments", segments}};
    addAges(json, m_ages);
    return json;
}

} // namespace vlx::tool
