#include "ConsumerRecord.hpp"

#include <algorithm>
#include <utility>

#include "TimedWait.hpp"

namespace vlx::kit
{

namespace
{

// Timestamps may jitter by this much, or by half a frame if that is less, and still continue one
// another; a lost frame always makes more.
constexpr TimeValue MaxJitterNs = 1'000'000;
constexpr TimeValue RoundingNs = 2;

constexpr unsigned MaxDoublings = 4;
// A duration that is beyond this is not believed.
constexpr TimeValue MaxSignNs = 60'000'000'000;
constexpr std::size_t LossLimit = 5;
constexpr TimeValue FlapWindowNs = 1'000'000'000;
// A frame may overtake the announcement of its sequence, but not for long.
constexpr TimeValue UnknownSequenceLimitNs = 20'000'000;
constexpr TimeValue RejoinIntervalNs = 1'000'000'000;

} // unnamed namespace

void ConsumerRecord::onStart(TimeValue now)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_waitBegin = now;
    m_losses.clear();
    m_stallsInARow = 0;
    m_isStopped = false;
}

void ConsumerRecord::onStop()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isStopped = true;
    m_condition.notify_all();
}

void ConsumerRecord::onConnecting(TimeValue now)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_connectingSince = now;
}

void ConsumerRecord::hold(bool on)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_holds = on;
    m_condition.notify_all();
}

bool ConsumerRecord::onChecked(const ConsumerClock& clock, const std::atomic<bool>& isEnding)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_holds)
        return true;
    m_clock = clock;
    m_isHeld = true;
    m_condition.notify_all();
    m_condition.wait(lock, [&] { return !m_holds || isEnding; });
    m_isHeld = false;
    return !isEnding;
}

void ConsumerRecord::release()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_condition.notify_all();
}

void ConsumerRecord::onJoined(TimeValue now, const ConsumerClock& clock)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_clock = clock;
    m_condition.notify_all();
    m_connectingSince = 0;
    m_joinedSince = now;
    m_lastSign = now;
    m_unknownSince = 0;
}

bool ConsumerRecord::onEnded(TimeValue now, bool byPeer)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_connectingSince = 0;
    m_counts.clock = Receiver::StreamClockType::Undetermined;
    m_clock = {};
    if (std::exchange(m_joinedSince, 0) == 0)
        return false;
    if (std::exchange(m_hadFrame, false))
        m_waitBegin = now;
    if (byPeer)
    {
        m_losses.push_back(now);
        m_stallsInARow = 0;
    }
    if (m_losses.size() > LossLimit)
        m_losses.pop_front();
    return true;
}

void ConsumerRecord::onSequence(
    Receiver::StreamClockType clock,
    const std::optional<StreamFormat>& format,
    bool isNew)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_counts.sequences;
    m_unknownSince = 0;
    m_losses.clear();
    m_counts.clock = clock;
    if (std::exchange(m_lastClock, clock) != clock)
        m_expectedTimestamp.reset();

    m_isFirstFrame = m_isFirstFrame || isNew;
    m_format = format;
    if (format)
        m_counts.format = *format;
}

ConsumerRecord::Place ConsumerRecord::onFrame(
    TimeValue timestamp,
    TimeValue duration,
    std::size_t size,
    TimeValue arrival,
    TimeValue streamTime)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!std::exchange(m_hadFrame, true))
    {
        ++m_counts.connections;
        m_counts.joinNs = arrival - m_waitBegin;
    }
    m_unknownSince = 0;
    m_stallsInARow = 0;
    ++m_counts.frames;
    m_counts.bytes += size;
    if (streamTime != 0)
        m_ages.add(static_cast<std::int64_t>(streamTime - timestamp));

    const TimeValue length = getLength(duration, size);
    m_lastSign = arrival + std::min(m_format ? getLength(0, size) : length, MaxSignNs);
    const std::int64_t gapNs = measureGap(timestamp, length);
    m_expectedTimestamp = timestamp + length;
    return {gapNs, std::exchange(m_isFirstFrame, false), length};
}

void ConsumerRecord::onLostFrame()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_counts.lost;
}

/// A PCM frame has a length even if its sender does not say it.
TimeValue ConsumerRecord::getLength(TimeValue duration, std::size_t size) const
{
    if (duration != 0 || !m_format)
        return duration;
    const std::size_t bytesPerSample = m_format->getBytesPerSample();
    return bytesPerSample == 0 ? 0 : m_format->toNanoseconds(size / bytesPerSample);
}

std::int64_t ConsumerRecord::measureGap(TimeValue timestamp, TimeValue length)
{
    if (!m_expectedTimestamp)
        return 0;
    const TimeValue tolerance = std::max(std::min(length / 2, MaxJitterNs), RoundingNs);
    const auto gapNs = static_cast<std::int64_t>(timestamp - *m_expectedTimestamp);
    const TimeValue jump =
        gapNs < 0 ? *m_expectedTimestamp - timestamp : timestamp - *m_expectedTimestamp;
    if (jump <= tolerance)
        return 0;
    if (gapNs > 0)
    {
        ++m_counts.gaps;
        m_counts.gapNs += jump;
    }
    else
    {
        ++m_counts.overlaps;
    }
    return gapNs;
}

bool ConsumerRecord::onUnknownSequence(TimeValue now)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_unknownSince == 0)
        m_unknownSince = now;
    const bool isDue = now - m_unknownSince >= UnknownSequenceLimitNs &&
                       (m_lastRejoin == 0 || now - m_lastRejoin >= RejoinIntervalNs);
    if (isDue)
        m_lastRejoin = now;
    return isDue;
}

void ConsumerRecord::onStall()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_counts.stalls;
    ++m_stallsInARow;
}

void ConsumerRecord::forgetLosses()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_losses.clear();
}

bool ConsumerRecord::isStalled(TimeValue now) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const TimeValue limit = m_stallLimitNs << std::min(m_stallsInARow, MaxDoublings);
    return m_joinedSince != 0 && limit != 0 && now > m_lastSign && now - m_lastSign >= limit;
}

bool ConsumerRecord::isFlapping() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_losses.size() == LossLimit && m_losses.back() - m_losses.front() <= FlapWindowNs;
}

TimeValue ConsumerRecord::getConnectingSince() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_connectingSince;
}

bool ConsumerRecord::isJoined() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_joinedSince != 0;
}

bool ConsumerRecord::hasFrame() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_hadFrame;
}

ConsumerStatistics ConsumerRecord::getStatistics() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    ConsumerStatistics counts = m_counts;
    counts.reconnects = std::max<std::uint64_t>(counts.connections, 1) - 1;
    return counts;
}

AgeHistogram ConsumerRecord::getAges() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_ages;
}

ConsumerClock ConsumerRecord::getClock() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_clock;
}

bool ConsumerRecord::waitUntilJoined(std::chrono::nanoseconds timeout) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto isConnected = [this] { return m_joinedSince != 0 || m_isHeld; };
    waitFor(m_condition, lock, timeout, [&] { return isConnected() || m_isStopped; });
    return isConnected();
}

} // namespace vlx::kit
