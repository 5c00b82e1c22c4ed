#include "StreamEvents.hpp"

#include <utility>

namespace vlx::tool
{

namespace
{

constexpr std::size_t MaxSpareBuffers = 64;

} // unnamed namespace

StreamEventQueue::StreamEventQueue(std::size_t maxBytes) : m_maxBytes(maxBytes) {}

void StreamEventQueue::pushFrame(StreamEvent event, const Buffer& frameData)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_closed)
            return;
        if (m_numBytes > 0 && m_numBytes + frameData.size() > m_maxBytes)
        {
            ++m_numDropped;
            m_droppedNs += event.gapNs + static_cast<std::int64_t>(event.duration);
            return;
        }
        event.gapNs += std::exchange(m_droppedNs, 0);
        if (!m_spareBuffers.empty())
        {
            event.data = std::move(m_spareBuffers.back());
            m_spareBuffers.pop_back();
        }
        event.data.assign(frameData.begin(), frameData.end());
        m_numBytes += frameData.size();
        m_events.push_back(std::move(event));
    }
    m_condition.notify_one();
}

void StreamEventQueue::push(StreamEvent event)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_closed)
            return;
        m_events.push_back(std::move(event));
    }
    m_condition.notify_one();
}

std::optional<StreamEvent> StreamEventQueue::pop()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_condition.wait(lock, [this] { return m_closed || !m_events.empty(); });
    if (m_events.empty())
        return std::nullopt;
    StreamEvent event = std::move(m_events.front());
    m_events.pop_front();
    m_numBytes -= event.data.size();
    return event;
}

void StreamEventQueue::recycle(Buffer&& data)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_spareBuffers.size() < MaxSpareBuffers)
        m_spareBuffers.push_back(std::move(data));
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
