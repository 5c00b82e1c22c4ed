#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxTypes.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::tool
{

/// Why a connection ended.
enum class EndReason
{
    Lost,  ///< by the sender, or by an error on the way
    Stall, ///< by us: joined, but no frames came
    Stop,  ///< by us: done
};

/// What a receiver's callbacks report, on the way to the thread that records it.
struct StreamEvent
{
    enum class Kind
    {
        Joined,
        Format,
        Frame,
        Ended,
    };

    Kind kind = Kind::Frame;
    TimeValue time = 0; ///< of the callback, nanoseconds of CLOCK_MONOTONIC
    // Kind::Format
    kit::StreamFormat format = {};
    Receiver::StreamClockType clock = Receiver::StreamClockType::Undetermined;
    // Kind::Frame
    TimeValue timestamp = 0;
    TimeValue localTime = 0; ///< of the timestamp, nanoseconds of CLOCK_MONOTONIC; to play it
    TimeValue duration = 0;
    std::int64_t gapNs = 0; ///< since the frame before: missing if positive
    Buffer data = {};
    // Kind::Ended
    EndReason reason = EndReason::Lost;
    std::string text = {}; ///< for the user
};

/// Takes events off a receiver's worker thread, so that a slow disk costs no frames until the queue
/// is full. Frames beyond that are dropped and counted, and are a gap before the next one; other
/// events always find room.
///
/// @thread any for push() and close(), one for pop() and recycle()
class StreamEventQueue
{
public:
    /// @param maxBytes  of frame data that may wait; one frame always may
    explicit StreamEventQueue(std::size_t maxBytes);

    /// @param frameData  copied into the event, into memory that was used before where there is some
    void pushFrame(StreamEvent event, const Buffer& frameData);

    void push(StreamEvent event);

    /// Waits for the next event.
    ///
    /// @return nothing once the queue is closed and everything was taken
    std::optional<StreamEvent> pop();

    /// Gives a frame's memory back.
    void recycle(Buffer&& data);

    /// No event is accepted any more.
    void close();

    /// @return frames that found no room
    std::uint64_t getNumDropped() const;

private:
    const std::size_t m_maxBytes;
    mutable std::mutex m_mutex;
    std::condition_variable m_condition;
    // All guarded by m_mutex.
    std::deque<StreamEvent> m_events;
    std::vector<Buffer> m_spareBuffers;
    std::size_t m_numBytes = 0;
    std::uint64_t m_numDropped = 0;
    std::int64_t m_droppedNs = 0; // since the last frame that found room
    bool m_closed = false;
};

} // namespace vlx::tool
