#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <mutex>
#include <optional>
#include <variant>

#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxTypes.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::tool
{

/// A frame that was received. Times are nanoseconds of CLOCK_MONOTONIC where nothing else is said.
struct ReceivedFrame
{
    TimeValue time = 0;      ///< of arrival
    TimeValue timestamp = 0; ///< on the stream's clock
    TimeValue localTime = 0; ///< of the timestamp; to play it
    TimeValue duration = 0;
    std::int64_t gapNs = 0; ///< since the frame before: missing if positive
    Buffer data = {};
};

/// The format of the frames that follow.
struct AnnouncedFormat
{
    kit::StreamFormat format;
    Receiver::StreamClockType clock;
};

/// What a consumer's callbacks report, on the way to the thread that records it.
using StreamEvent = std::variant<ReceivedFrame, AnnouncedFormat, kit::ConsumerEvent>;

/// @return the sum, or the number that comes nearest to it: a sender may send any times
inline std::int64_t addLimited(std::int64_t a, std::int64_t b)
{
    using Limits = std::numeric_limits<std::int64_t>;
    std::int64_t sum = 0;
    return !__builtin_add_overflow(a, b, &sum) ? sum : b < 0 ? Limits::min() : Limits::max();
}

/// Takes events off a receiver's worker thread, so that a slow disk costs no frames until the queue
/// is full. Frames beyond that are dropped and counted, and are a gap before the next one. Other
/// events always find room; of formats in a row the last one stays.
///
/// @thread any for push() and close(), one for pop()
class StreamEventQueue
{
public:
    /// What may wait; one frame always may.
    struct Limits
    {
        std::size_t bytes; ///< of frame data
        std::size_t frames;
    };

    explicit StreamEventQueue(const Limits& limits);

    void push(StreamEvent event);

    /// Waits for the next event.
    ///
    /// @param event  unset if none has come in time
    /// @return false once the queue is closed and everything was taken
    bool pop(std::optional<StreamEvent>& event, std::chrono::nanoseconds timeout);

    /// No event is accepted any more.
    void close();

    /// @return frames that found no room
    std::uint64_t getNumDropped() const;

private:
    bool makeRoom(ReceivedFrame& frame);

    const Limits m_limits;
    mutable std::mutex m_mutex;
    std::condition_variable m_condition;
    // All guarded by m_mutex.
    std::deque<StreamEvent> m_events;
    std::size_t m_numBytes = 0;  // of frames that wait
    std::size_t m_numFrames = 0; // that wait
    std::uint64_t m_numDropped = 0;
    std::int64_t m_droppedNs = 0; // since the last frame that found room
    bool m_closed = false;
};

} // namespace vlx::tool
