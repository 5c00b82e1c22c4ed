#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>

#include <vlxkit/Consumer.hpp>

namespace vlx::kit
{

/// Counts of a consumer, and detection of stalled, flapping and unannounced connections. Times are
/// nanoseconds of CLOCK_MONOTONIC.
///
/// @thread getters and checks: any; on...() functions: one at a time
class ConsumerRecord
{
public:
    /// Where a frame stands in its stream.
    struct Place
    {
        std::int64_t gapNs;
        bool isFirst;
        TimeValue lengthNs; ///< of its media
    };

    /// @param stallLimitNs  time from the end of the last frame's duration after which a connection
    ///                      counts as stalled; 0: never. A sender that is merely paused looks the
    ///                      same, so it doubles with each stall until a frame comes or the sender
    ///                      goes, up to sixteenfold
    explicit ConsumerRecord(TimeValue stallLimitNs) : m_stallLimitNs(stallLimitNs) {}

    /// The consumer starts; no sender is joined yet.
    void onStart(TimeValue now);

    /// The receiver looks for a sender.
    void onConnecting(TimeValue now);

    /// While on, a sender that was checked is not joined.
    void hold(bool on);

    /// The sender was checked. Waits while it is held.
    ///
    /// @param isEnding  set before release() if the connection has to end
    /// @return whether the sender may be joined
    bool onChecked(const ConsumerClock& clock, const std::atomic<bool>& isEnding);

    /// Ends a wait of onChecked().
    void release();

    /// @param clock  clock that the sender announces
    void onJoined(TimeValue now, const ConsumerClock& clock = {});

    /// The consumer has stopped; no sender will be joined.
    void onStop();

    /// The receiver has no connection any more, or never had one, or does not look for one now.
    ///
    /// @param byPeer  the other side may have ended it
    /// @return true if there was a connection
    bool onEnded(TimeValue now, bool byPeer);

    /// A sequence was announced.
    ///
    /// @param format  not set for any codec but PCM
    /// @param isNew   false if it only repeats what is known
    void onSequence(
        Receiver::StreamClockType clock,
        const std::optional<StreamFormat>& format,
        bool isNew);

    /// @param streamTime  on the stream's clock, at the frame's arrival; 0 if it cannot be told
    Place onFrame(
        TimeValue timestamp,
        TimeValue duration,
        std::size_t size,
        TimeValue arrival,
        TimeValue streamTime);

    /// A frame in shared memory was overwritten before it was read.
    void onLostFrame();

    /// A frame was refused since its sequence was not announced here.
    ///
    /// @return whether that has gone on for 20 ms, so that the sender should be joined again:
    ///         true at most once a second
    bool onUnknownSequence(TimeValue now);

    /// The receiver is being restarted because of a stall.
    void onStall();

    /// Earlier losses no longer count as flapping.
    void forgetLosses();

    bool isStalled(TimeValue now) const;

    /// @return whether five connections in a row were lost within a second, before any of them
    ///         announced a sequence. A receiver does that without a pause when it has no
    ///         depayloader for the codec, or when the depayloader rejects the header
    bool isFlapping() const;

    /// @return since when the receiver looks for a sender; 0 if it does not
    TimeValue getConnectingSince() const;

    bool isJoined() const;

    /// @return whether the present connection has brought a frame
    bool hasFrame() const;

    /// @return everything but state, drops and clock offset
    ConsumerStatistics getStatistics() const;

    AgeHistogram getAges() const;

    /// @return the clock that the sender announced
    ConsumerClock getClock() const;

    /// @param timeout  negative: no limit
    /// @return whether there is a connection, or one that is held
    bool waitUntilJoined(std::chrono::nanoseconds timeout) const;

private:
    TimeValue getLength(TimeValue duration, std::size_t size) const;
    std::int64_t measureGap(TimeValue timestamp, TimeValue length);

    const TimeValue m_stallLimitNs;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_condition; // joined, stopped, held or let go
    // All guarded by m_mutex.
    ConsumerStatistics m_counts;
    AgeHistogram m_ages;
    ConsumerClock m_clock; // of the present connection
    bool m_isStopped = true;
    bool m_holds = false;
    bool m_isHeld = false;                        // a sender was checked, and is not joined yet
    std::deque<TimeValue> m_losses;               // without a sequence; the last ones, oldest first
    TimeValue m_lastSign = 0;                     // the join, or the end of the last frame
    unsigned m_stallsInARow = 0;                  // since the last frame or loss
    std::optional<StreamFormat> m_format;         // of the present sequence, if it is PCM
    std::optional<TimeValue> m_expectedTimestamp; // of the next frame, if nothing is missing
    Receiver::StreamClockType m_lastClock = Receiver::StreamClockType::Undetermined;
    TimeValue m_unknownSince = 0;    // first refusal after the last sign of a known sequence; or 0
    TimeValue m_lastRejoin = 0;      // because of such refusals
    TimeValue m_waitBegin = 0;       // since when a frame is waited for
    TimeValue m_connectingSince = 0; // 0: not connecting
    TimeValue m_joinedSince = 0;     // 0: not joined
    bool m_hadFrame = false;         // in the present connection
    bool m_isFirstFrame = false;     // the next one is the first of something new
};

} // namespace vlx::kit
