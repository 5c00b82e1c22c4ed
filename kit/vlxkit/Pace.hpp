#pragma once

/// When the blocks of a stream are due, and how they are stamped.

#include <cstdint>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/RateControl.hpp>

namespace vlx::kit
{

/// Turns sample counts into timestamps, durations and due times, for any rate and block size.
///
/// A block is due at its timestamp. Timestamps follow from the first one and the number of samples,
/// rounded once, so that no error adds up and each block begins where the one before ends. A sender
/// that was held up catches up at twice the pace: nothing is sent in a burst, of which a receiver
/// would lose a part.
///
/// A live source has a clock of its own. Report what it delivers by observeInput(), and the
/// timestamps follow its rate smoothly, so that its samples neither pile up nor run out. A source
/// that has always more to give, such as a file in a pipe, is paced by the stream's clock alone:
/// report that by observeBacklog().
///
/// A value type without a clock of its own. All times are nanoseconds of the stream's clock.
///
/// @thread one at a time
class Pace
{
public:
    /// Samples of a live source should come so much before the block that needs them is due,
    /// nanoseconds.
    static constexpr TimeValue Margin = 5'000'000;

    /// Makes a pace that has not begun.
    ///
    /// @param rate  samples per second, at least 1
    explicit Pace(std::uint32_t rate = 48000) : m_rate(rate) {}

    /// Begins a run of timestamps. What is known of the source's rate stays.
    ///
    /// @param timestamp  of the next sample
    VLX_API void begin(TimeValue timestamp);

    /// Begins a run in another format, where the present run ends.
    ///
    /// @param rate  samples per second, at least 1
    VLX_API void changeRate(std::uint32_t rate);

    /// @return timestamp of the next sample
    TimeValue getTimestamp() const
    {
        return getTimestamp(0);
    }

    /// Returns the timestamp of a sample further on.
    ///
    /// @param samples  counted from the next one
    /// @return timestamp of a sample further on, or of the end of a block of so many samples
    VLX_API TimeValue getTimestamp(std::uint64_t samples) const;

    /// @return length of the next block, which ends where the one after it begins, nanoseconds
    TimeValue getDuration(std::uint64_t samples) const
    {
        return getTimestamp(samples) - getTimestamp();
    }

    /// @return when the next block may be sent: at its timestamp, or while catching up half the
    ///         former block's length after that one was sent
    VLX_API TimeValue getDueTime() const;

    /// Holds the next block back.
    ///
    /// @param time  before which it is not due
    VLX_API void holdUntil(TimeValue time);

    /// Counts a block that was sent.
    ///
    /// @param samples  of the block
    /// @param now      when it was sent
    VLX_API void advance(std::uint64_t samples, TimeValue now);

    /// Observes a live source, each time when it has delivered something.
    ///
    /// @param samples  that waited before, those of a block that is not yet sent included
    /// @param block    samples of a block, at least 1
    /// @param now      when it delivered
    VLX_API void observeInput(std::uint64_t samples, std::uint64_t block, TimeValue now);

    /// Observes that the source has delivered as much as it was allowed to: it does not set the
    /// pace, and timestamps follow from the sample count alone.
    VLX_API void observeBacklog();

    /// @return whether the source sets the pace: it has delivered no more than was needed for more
    ///         than a second
    bool isFollowing() const
    {
        return m_isFollowing;
    }

    /// @return how much faster than nominal the source is, in ppm; 0 unless isFollowing()
    VLX_API double getSpeedPpm() const;

private:
    /// How far timestamps run ahead of those of the nominal rate.
    struct Drift
    {
        std::int64_t ns;
        std::int64_t rest; ///< billionths of a nanosecond
    };

    /// A pipe jitters more than a sound card, and the margin leaves time.
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
    std::int64_t m_speedPpb = 0; // billionths by which timestamps pass more slowly than nominal
    TimeValue m_earliest = 0;    // of the next block

    bool m_isObserving = false;
    bool m_isFollowing = false;
    TimeValue m_observedSince = 0; // without a backlog
    TimeValue m_windowBegin = 0;
    std::int64_t m_lowest = 0; // that samples came before their aim in the window, nanoseconds
    RateControl m_control = makeControl();
};

} // namespace vlx::kit
