#pragma once

/// Pacing of a stream: timestamps and due times of its blocks.

#include <cstdint>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/RateControl.hpp>

namespace vlx::kit
{

/// Computes timestamps, durations and due times from sample counts, for any rate and block size.
///
/// A block is due at its timestamp. Each timestamp is computed from the first one and the number of
/// samples since, and rounded once: errors do not add up, and each block begins where the one
/// before ends. A sender that is late catches up at twice the pace. It never sends a burst, of
/// which a receiver would lose a part.
///
/// A live source has its own clock. Report its deliveries by observeInput(): timestamps then follow
/// its rate smoothly, without a growing backlog or an underrun. A source that always has more data,
/// such as a file in a pipe, is paced by the stream's clock alone: report it by observeBacklog().
///
/// A value type. Only sleepAfter() reads a clock; to all others the caller passes the time. All
/// times are nanoseconds on the stream's clock.
///
/// @thread one at a time
class Pace
{
public:
    /// Lead time of a live source, nanoseconds: samples should arrive this long before their block
    /// is due.
    static constexpr TimeValue Margin = 5'000'000;

    /// Creates a pace; call begin() before use.
    ///
    /// @param rate  samples per second, at least 1
    explicit Pace(std::uint32_t rate = 48000) : m_rate(rate) {}

    /// Begins a run of timestamps. The measured rate of the source is kept.
    ///
    /// @param timestamp  timestamp of the next sample
    VLX_API void begin(TimeValue timestamp);

    /// Begins a run at another rate, where the current run ends.
    ///
    /// @param rate  samples per second, at least 1
    VLX_API void changeRate(std::uint32_t rate);

    /// @return timestamp of the next sample
    TimeValue getTimestamp() const
    {
        return getTimestamp(0);
    }

    /// Returns the timestamp of a later sample, which is also the end of a block that long.
    ///
    /// @param samples  number of samples between the next one and the later one
    /// @return timestamp of the later sample
    VLX_API TimeValue getTimestamp(std::uint64_t samples) const;

    /// Returns the duration of the next block, which ends where the following one begins.
    ///
    /// @param samples  number of samples in the block
    /// @return nanoseconds
    TimeValue getDuration(std::uint64_t samples) const
    {
        return getTimestamp(samples) - getTimestamp();
    }

    /// Returns the time at which the next block may be sent.
    ///
    /// @return its timestamp; while catching up, the time at which the previous block was sent plus
    ///         half that block's duration
    VLX_API TimeValue getDueTime() const;

    /// @return the earliest time at which the next block makes no burst: the time at which the
    ///         previous block was sent plus half its duration; 0 at the beginning of a run
    TimeValue getEarliestTime() const
    {
        return m_earliest;
    }

    /// Delays the next block.
    ///
    /// @param time  earliest due time of the block
    VLX_API void holdUntil(TimeValue time);

    /// Advances by a block that was sent.
    ///
    /// @param samples  number of samples in the block
    /// @param now      time at which it was sent
    VLX_API void advance(std::uint64_t samples, TimeValue now);

    /// Advances by a block that has just been sent, and sleeps until the next one is due. For a
    /// stream on CLOCK_MONOTONIC; on any other clock, or to wait for something else as well, use
    /// advance() and getDueTime().
    ///
    /// @param samples  number of samples in the block that was sent
    VLX_API void sleepAfter(std::uint64_t samples);

    /// Reports a delivery of a live source. Call it after each delivery.
    ///
    /// @param samples  number of samples that were waiting before this delivery, including those of
    ///                 a block that is not sent yet
    /// @param block    samples per block, at least 1
    /// @param now      time of the delivery
    VLX_API void observeInput(std::uint64_t samples, std::uint64_t block, TimeValue now);

    /// Reports that the source has filled its buffer. It then does not set the pace: timestamps
    /// follow from the sample count alone.
    VLX_API void observeBacklog();

    /// @return whether the source sets the pace: for more than a second it has not delivered more
    ///         than was needed
    bool isFollowing() const
    {
        return m_isFollowing;
    }

    /// @return speed of the source above nominal, ppm; 0 unless isFollowing()
    VLX_API double getSpeedPpm() const;

private:
    /// Lead of the timestamps over those of the nominal rate.
    struct Drift
    {
        std::int64_t ns;
        std::int64_t rest; ///< billionths of a nanosecond
    };

    /// Slower than the default: a pipe has more jitter than a sound card, and Margin leaves time.
    static RateControl makeControl()
    {
        return RateControl(0.15, 1);
    }

    Drift measureDrift(std::uint64_t samples) const;

    std::uint32_t m_rate;
    TimeValue m_begin = 0;       // of the run
    std::uint64_t m_samples = 0; // in the run
    std::int64_t m_driftNs = 0;
    std::int64_t m_driftRest = 0;
    std::int64_t m_speedPpb = 0; // ppb by which timestamps advance more slowly than nominal
    TimeValue m_earliest = 0;    // due time of the next block

    bool m_isObserving = false;
    bool m_isFollowing = false;
    TimeValue m_observedSince = 0; // without a backlog
    TimeValue m_windowBegin = 0;
    std::int64_t m_lowest = 0; // least lead beyond Margin in the window, nanoseconds
    RateControl m_control = makeControl();
};

} // namespace vlx::kit
