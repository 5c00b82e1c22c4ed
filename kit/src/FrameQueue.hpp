#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include <vlxkit/Consumer.hpp>

#include "base/OwnedDescriptor.hpp"

namespace vlx::kit
{

/// Memory of frames that were read and destroyed, for those that come.
///
/// @thread any
class FramePool
{
public:
    FramePool();

    /// @return a buffer with any content, which need not be cleared to be overwritten
    Buffer take();

    /// Keeps the memory of a buffer, within limits.
    void give(Buffer&& buffer);

private:
    std::mutex m_mutex;
    // Guarded by m_mutex.
    std::vector<Buffer> m_buffers;
    std::size_t m_numBytes = 0;
};

/// First in, first out, in memory that only grows.
template <typename T>
class Ring
{
public:
    bool isEmpty() const
    {
        return m_size == 0;
    }

    std::size_t getSize() const
    {
        return m_size;
    }

    T& getFront()
    {
        return m_places[m_begin];
    }

    T& getBack()
    {
        return m_places[(m_begin + m_size - 1) % m_places.size()];
    }

    void push(T&& value)
    {
        if (m_size == m_places.size())
            grow();
        ++m_size;
        getBack() = std::move(value);
    }

    T pop()
    {
        T value = std::move(getFront());
        m_begin = (m_begin + 1) % m_places.size();
        --m_size;
        return value;
    }

private:
    void grow()
    {
        std::vector<T> places(m_size == 0 ? 16 : 2 * m_size);
        for (std::size_t i = 0; i < m_size; ++i)
            places[i] = std::move(m_places[(m_begin + i) % m_size]);
        m_places = std::move(places);
        m_begin = 0;
    }

    std::vector<T> m_places;
    std::size_t m_begin = 0;
    std::size_t m_size = 0;
};

/// What a consumer has received, in order, until it is read. Never makes the writing side wait for
/// a reader: when frames are too many, the oldest one is dropped, and the next one says so.
///
/// @thread any; end() and begin() from one at a time; pause() likewise
class FrameQueue
{
public:
    explicit FrameQueue(const QueueLimits& limits);

    void setLimits(const QueueLimits& limits);

    /// Readers wait from now on.
    void begin();

    /// Nothing is put in any more: readers take what there is and do not wait.
    void end();

    /// While on, frames are discarded without being counted. The next one is a first one.
    void pause(bool on);

    /// While on, readers do not wait.
    void interrupt(bool on);

    /// A format replaces the one before it that no frame has followed.
    void put(ConsumerItem item);

    /// @param lengthNs  of the frame's media, which is missing if the frame is dropped
    void putFrame(ReceivedFrame frame, TimeValue lengthNs);

    /// @param timeout  negative: no limit
    /// @return not set if nothing has come in time, or nothing is to come
    std::optional<ConsumerItem> read(std::chrono::nanoseconds timeout);

    /// @return readable as long as something waits; -1: no descriptor is left
    int getDescriptor();

    /// In a forked child: forgets everything. Waits for no lock, and leaves the parent's descriptor
    /// as it is.
    void abandon();

    /// @return frames that were dropped
    std::uint64_t getNumDropped() const;

private:
    /// Serials give the order of frames and other items.
    struct QueuedFrame
    {
        std::uint64_t serial = 0;
        TimeValue lengthNs = 0;
        ReceivedFrame frame;
    };

    struct QueuedItem
    {
        std::uint64_t serial;
        ConsumerItem item;
    };

    // m_mutex is held by the caller.
    bool isEmpty() const;
    bool isOverfull();
    void dropOldestFrame();
    void eraseFormats(std::uint64_t after, std::uint64_t before);
    void signal() const;
    void takeBackSignal() const;

    // Set before m_mutex is locked: a flood in real time would keep others from that lock.
    std::atomic<bool> m_isPaused = false;

    mutable std::mutex m_mutex;
    std::condition_variable m_condition;
    // All guarded by m_mutex.
    bool m_isFirst = false; // the next frame
    QueueLimits m_limits;
    Ring<QueuedFrame> m_frames;
    std::deque<QueuedItem> m_others;
    std::uint64_t m_serial = 0;
    std::size_t m_numBytes = 0; // of frames that wait
    std::uint64_t m_numDropped = 0;
    bool m_hasEnded = true;
    bool m_isInterrupted = false;
    OwnedDescriptor m_event; // made when it is asked for
};

} // namespace vlx::kit
