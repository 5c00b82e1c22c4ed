#include "StreamEvents.hpp"

#include <algorithm>
#include <utility>

namespace vlx::tool
{

StreamEventQueue::StreamEventQueue(const Limits& limits) : m_limits(limits) {}

void StreamEventQueue::push(StreamEvent event)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        auto* const frame = std::get_if<ReceivedFrame>(&event);
        if (m_closed || (frame != nullptr && !makeRoom(*frame)))
            return;
        const auto isFormat = [](const StreamEvent& each)
        { return std::holds_alternative<AnnouncedFormat>(each); };
        if (isFormat(event) && !m_events.empty() && isFormat(m_events.back()))
            m_events.pop_back();
        m_events.push_back(std::move(event));
    }
    m_condition.notify_one();
}

/// Takes the account of a frame. The lock is held by the caller.
bool StreamEventQueue::makeRoom(ReceivedFrame& frame)
{
    if (m_numFrames > 0 &&
        (m_numBytes + frame.data.size() > m_limits.bytes || m_numFrames >= m_limits.frames))
    {
        ++m_numDropped;
        constexpr TimeValue Longest = std::numeric_limits<std::int64_t>::max();
        const auto duration = static_cast<std::int64_t>(std::min(frame.duration, Longest));
        m_droppedNs = addLimited(m_droppedNs, addLimited(frame.gapNs, duration));
        return false;
    }
    frame.gapNs = addLimited(frame.gapNs, std::exchange(m_droppedNs, 0));
    m_numBytes += frame.data.size();
    ++m_numFrames;
    return true;
}

bool StreamEventQueue::pop(std::optional<StreamEvent>& event, std::chrono::nanoseconds timeout)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    event.reset();
    if (!m_condition.wait_for(lock, timeout, [this] { return m_closed || !m_events.empty(); }))
        return true;
    if (m_events.empty())
        return false;
    event = std::move(m_events.front());
    m_events.pop_front();
    if (const auto* const frame = std::get_if<ReceivedFrame>(&*event))
    {
        m_numBytes -= frame->data.size();
        --m_numFrames;
    }
    return true;
}

void StreamEventQueue::close()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
    }
    m_condition.notify_one();
}

std::uint64_t StreamEventQueue::getNumDropped() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_numDropped;
}

} // namespace vlx::tool
