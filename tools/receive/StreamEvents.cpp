#include "StreamEvents.hpp"

#include <utility>

namespace vlx::tool
{

StreamEventQueue::StreamEventQueue(std::size_t maxBytes) : m_maxBytes(maxBytes) {}

void StreamEventQueue::push(StreamEvent event)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        auto* const frame = std::get_if<ReceivedFrame>(&event);
        if (m_closed || (frame != nullptr && !makeRoom(*frame)))
            return;
        m_events.push_back(std::move(event));
    }
    m_condition.notify_one();
}

/// Takes the account of a frame. The lock is held by the caller.
bool StreamEventQueue::makeRoom(ReceivedFrame& frame)
{
    if (m_numBytes > 0 && m_numBytes + frame.data.size() > m_maxBytes)
    {
        ++m_numDropped;
        m_droppedNs += frame.gapNs + static_cast<std::int64_t>(frame.duration);
        return false;
    }
    frame.gapNs += std::exchange(m_droppedNs, 0);
    m_numBytes += frame.data.size();
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
        m_numBytes -= frame->data.size();
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
