#include "FrameQueue.hpp"

#include <algorithm>
#include <limits>

#include <sys/eventfd.h>
#include <unistd.h>

#include "TimedWait.hpp"
#include "base/ForkedCopy.hpp"

namespace vlx::kit
{

namespace
{

constexpr std::size_t MaxPooledBuffers = 64;
constexpr std::size_t MaxPooledBytes = 16 << 20;

/// @return the sum, or the number that comes nearest to it: a sender may send any times
std::int64_t addLimited(std::int64_t a, std::int64_t b)
{
    using Limits = std::numeric_limits<std::int64_t>;
    std::int64_t sum = 0;
    return !__builtin_add_overflow(a, b, &sum) ? sum : b < 0 ? Limits::min() : Limits::max();
}

bool isFormat(const ConsumerItem& item)
{
    return std::holds_alternative<StreamFormat>(item) || std::holds_alternative<CodecFormat>(item);
}

} // unnamed namespace

FramePool::FramePool()
{
    m_buffers.reserve(MaxPooledBuffers);
}

Buffer FramePool::take()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_buffers.empty())
        return {};
    Buffer buffer = std::move(m_buffers.back());
    m_buffers.pop_back();
    m_numBytes -= buffer.capacity();
    return buffer;
}

void FramePool::give(Buffer&& buffer)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::size_t size = buffer.capacity();
    if (size == 0 || m_buffers.size() == MaxPooledBuffers || m_numBytes + size > MaxPooledBytes)
        return;
    m_numBytes += size;
    m_buffers.push_back(std::move(buffer));
}

ReceivedFrame::ReceivedFrame() = default;

ReceivedFrame::ReceivedFrame(const FrameInfo& info, Buffer bytes, std::shared_ptr<FramePool> pool)
    : FrameInfo(info), data(std::move(bytes)), m_pool(std::move(pool))
{
}

ReceivedFrame::ReceivedFrame(ReceivedFrame&&) noexcept = default;

ReceivedFrame& ReceivedFrame::operator=(ReceivedFrame&& other) noexcept
{
    FrameInfo::operator=(other);
    numDropped = other.numDropped;
    format = std::move(other.format);
    std::swap(data, other.data); // the other one gives it back
    std::swap(m_pool, other.m_pool);
    return *this;
}

ReceivedFrame::~ReceivedFrame()
{
    if (m_pool)
        m_pool->give(std::move(data));
}

FrameQueue::FrameQueue(const QueueLimits& limits) : m_limits(limits) {}

void FrameQueue::setLimits(const QueueLimits& limits)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_limits = limits;
    while (isOverfull())
        dropOldestFrame();
}

void FrameQueue::begin()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_hasEnded = false;
}

void FrameQueue::end()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_hasEnded = true;
    }
    m_condition.notify_all();
}

void FrameQueue::pause(bool on)
{
    m_isPaused = on;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isFirst = m_isFirst || on;
    while (on && !m_frames.isEmpty())
        m_numBytes -= m_frames.pop().frame.data.size();
    if (isEmpty())
        takeBackSignal();
}

void FrameQueue::interrupt(bool on)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isInterrupted = on;
    }
    m_condition.notify_all();
}

void FrameQueue::put(ConsumerItem item)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (isEmpty())
            signal();
        ++m_serial;
        if (isFormat(item))
            eraseFormats(m_frames.isEmpty() ? 0 : m_frames.getBack().serial, m_serial);
        m_others.push_back({m_serial, std::move(item)});
    }
    m_condition.notify_one();
}

void FrameQueue::putFrame(ReceivedFrame frame, TimeValue lengthNs)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_isPaused)
            return;
        if (isEmpty())
            signal();
        frame.isFirst = std::exchange(m_isFirst, false) || frame.isFirst;
        m_numBytes += frame.data.size();
        m_frames.push({++m_serial, lengthNs, std::move(frame)});
        while (isOverfull())
            dropOldestFrame();
    }
    m_condition.notify_one();
}

std::optional<ConsumerItem> FrameQueue::read(std::chrono::nanoseconds timeout)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    waitFor(
        m_condition, lock, timeout, [this] { return !isEmpty() || m_hasEnded || m_isInterrupted; });
    if (isEmpty())
        return std::nullopt;

    std::optional<ConsumerItem> item;
    const bool isFrame = m_others.empty() || (!m_frames.isEmpty() &&
                                              m_frames.getFront().serial < m_others.front().serial);
    if (isFrame)
    {
        item.emplace(m_frames.pop().frame);
        m_numBytes -= std::get<ReceivedFrame>(*item).data.size();
    }
    else
    {
        item.emplace(std::move(m_others.front().item));
        m_others.pop_front();
    }
    if (isEmpty())
        takeBackSignal();
    return item;
}

int FrameQueue::getDescriptor()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_event.get() < 0)
    {
        m_event = OwnedDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!isEmpty())
            signal();
    }
    return m_event.get();
}

void FrameQueue::abandon()
{
    makeAnew(m_mutex, m_condition, m_frames, m_others);
    m_event = OwnedDescriptor();
    m_hasEnded = true;
}

std::uint64_t FrameQueue::getNumDropped() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_numDropped;
}

bool FrameQueue::isEmpty() const
{
    return m_frames.isEmpty() && m_others.empty();
}

/// The newest frame always stays.
bool FrameQueue::isOverfull()
{
    if (m_frames.getSize() < 2)
        return false;
    const TimeValue age = m_frames.getBack().frame.arrival - m_frames.getFront().frame.arrival;
    const auto maxAge = static_cast<TimeValue>(m_limits.time.count());
    return (m_limits.frames != 0 && m_frames.getSize() > m_limits.frames) ||
           (m_limits.bytes != 0 && m_numBytes > m_limits.bytes) || (maxAge != 0 && age > maxAge);
}

void FrameQueue::dropOldestFrame()
{
    const QueuedFrame dropped = m_frames.pop();
    ReceivedFrame& next = m_frames.getFront().frame;
    std::uint64_t newestFormat = 0; // of those before the next frame
    for (const QueuedItem& other : m_others)
    {
        if (other.serial < m_frames.getFront().serial && isFormat(other.item))
            newestFormat = other.serial;
    }
    eraseFormats(0, newestFormat);
    m_numBytes -= dropped.frame.data.size();
    ++m_numDropped;
    next.numDropped = dropped.frame.numDropped + 1;
    next.isFirst = next.isFirst || dropped.frame.isFirst;
    if (next.clock != dropped.frame.clock)
        return; // their timestamps cannot be compared
    constexpr TimeValue Longest = std::numeric_limits<std::int64_t>::max();
    const auto length = static_cast<std::int64_t>(std::min(dropped.lengthNs, Longest));
    next.gapNs = addLimited(next.gapNs, addLimited(dropped.frame.gapNs, length));
}

/// Otherwise a sender that changes its format again and again would fill the memory.
void FrameQueue::eraseFormats(std::uint64_t after, std::uint64_t before)
{
    std::erase_if(
        m_others, [&](const QueuedItem& other)
        { return isFormat(other.item) && after < other.serial && other.serial < before; });
}

void FrameQueue::takeBackSignal() const
{
    std::uint64_t count = 0;
    if (m_event.get() >= 0) [[maybe_unused]]
        const ssize_t size = ::read(m_event.get(), &count, sizeof(count));
}

void FrameQueue::signal() const
{
    constexpr std::uint64_t One = 1;
    if (m_event.get() >= 0) [[maybe_unused]]
        const ssize_t size = ::write(m_event.get(), &One, sizeof(One));
}

} // namespace vlx::kit
