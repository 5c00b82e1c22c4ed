// Timestamps and due times of a stream, in made-up time.

#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Pace.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::testing
{

namespace
{

using kit::Pace;

constexpr TimeValue Second = 1'000'000'000;
constexpr TimeValue Ms = 1'000'000;
constexpr TimeValue Begin = 5 * Second;
constexpr std::uint32_t Rate = 48000;
constexpr std::uint64_t Block = Rate / 100;

/// How late threads run: a few microseconds mostly, now and then milliseconds.
class Lateness
{
public:
    TimeValue get()
    {
        m_noise = m_noise * 1664525 + 1013904223;
        return (m_noise >> 8) % 1000 == 0 ? 3 * Ms : (m_noise >> 16) % 50'000;
    }

private:
    std::uint32_t m_noise = 1;
};

TEST(PaceTest, StampsAreExactForEveryRateAndBlock)
{
    constexpr std::uint64_t Hours = 1000;
    for (const std::uint32_t rate : {1U, 8000U, 11025U, 44100U, 48000U, 192000U, 768000U})
    {
        const kit::StreamFormat format{.rate = rate};
        EXPECT_EQ(format.toNanoseconds(Hours * 3600 * rate), Hours * 3600 * Second) << rate;
        for (const std::uint64_t block : {1U, 7U, 441U, 4096U})
        {
            Pace pace(rate);
            pace.begin(Begin);
            // Far into the stream, and on from there.
            pace.advance(Hours * 3600 * rate - 3 * block, 0);
            TimeValue sum = 0;
            for (int i = 0; i < 3; ++i)
            {
                sum += pace.getDuration(block);
                pace.advance(block, 0);
            }
            EXPECT_EQ(pace.getTimestamp(), Begin + Hours * 3600 * Second) << rate << " " << block;
            const TimeValue length = format.toNanoseconds(3 * block);
            EXPECT_LE(sum - length, 1U) << rate << " " << block;
            EXPECT_EQ(format.toSamples(length), 3 * block) << rate;
        }
    }
}

TEST(PaceTest, AnotherRateGoesOnWhereTheFormerEnds)
{
    Pace pace(44100);
    pace.begin(Begin);
    pace.advance(44100, Begin);
    pace.changeRate(8000);
    EXPECT_EQ(pace.getTimestamp(), Begin + Second);
    EXPECT_EQ(pace.getTimestamp(80), Begin + Second + 10 * Ms);
}

TEST(PaceTest, InputThatIsAlwaysReadyIsStampedBySamplesAlone)
{
    Pace pace(Rate);
    pace.begin(Begin);
    Lateness lateness;
    TimeValue now = Begin;
    for (std::uint64_t sample = 0; sample < std::uint64_t{60} * Rate; sample += Block)
    {
        ASSERT_EQ(pace.getTimestamp(), Begin + sample * Second / Rate);
        pace.observeInput(20 * Block, Block, now); // it fills up what it may
        pace.observeBacklog();
        now = std::max(now, pace.getDueTime()) + lateness.get();
        pace.advance(Block, now);
    }
    EXPECT_FALSE(pace.isFollowing());
    EXPECT_EQ(pace.getSpeedPpm(), 0);
}

TEST(PaceTest, APauseIsCaughtUpWithWithoutABurst)
{
    constexpr TimeValue Pause = 300 * Ms;
    Pace pace(Rate);
    pace.begin(Begin);
    TimeValue now = Begin + Pause;
    TimeValue last = 0;
    std::uint64_t sent = 0;
    for (; now > pace.getTimestamp(); ++sent)
    {
        ASSERT_GE(now - last, 5 * Ms) << sent;
        pace.advance(Block, last = now);
        now = pace.getDueTime();
    }
    EXPECT_EQ(now, Begin + 2 * Pause) << "not at twice the pace";
    EXPECT_EQ(pace.getTimestamp(), Begin + sent * 10 * Ms) << "stamps have moved";

    pace.holdUntil(now + Second);
    EXPECT_EQ(pace.getDueTime(), now + Second);
    pace.begin(now);
    EXPECT_EQ(pace.getDueTime(), now) << "an earlier clock's time holds a new run back";
}

TEST(PaceTest, SleepsUntilTheNextBlockIsDue)
{
    Pace pace(Rate);
    for (const TimeValue lateBy : {TimeValue{0}, Second}) // on time, and while it catches up
    {
        const TimeValue start = miscUtils::getMonotonicSysclockTime();
        pace.begin(start - lateBy);
        pace.sleepAfter(Block);
        pace.sleepAfter(Block);
        EXPECT_EQ(pace.getTimestamp(), start - lateBy + 20 * Ms);
        EXPECT_GE(miscUtils::getMonotonicSysclockTime(), start + (lateBy == 0 ? 20 : 10) * Ms);
    }
}

/// What a minute of a live source was like, from its third second on.
struct Minute
{
    TimeValue maxFill = 0;
    TimeValue maxLate = 0;
    double maxStampError = 0; // against the time when a sample was taken, from what it was at first
    double speedPpm = 0;
};

/// Sends what a source delivers in pieces, by a clock of its own.
Minute runMinute(double ppm, std::uint64_t piece)
{
    const double samplesPerNs = Rate * (1 + ppm * 1e-6) / 1e9;
    Pace pace(Rate);
    Lateness lateness;
    Minute minute;
    std::uint64_t delivered = 0, sent = 0;
    bool running = false;
    double firstAge = 0;
    for (TimeValue now = Begin; now < Begin + 60 * Second;)
    {
        const auto arrival =
            Begin + static_cast<TimeValue>(static_cast<double>(delivered + piece) / samplesPerNs);
        const bool hasBlock = delivered - sent >= Block;
        if (!running && hasBlock)
        {
            pace.begin(now + Pace::Margin);
            running = true;
        }
        if (!hasBlock || arrival < std::max(now, pace.getDueTime()))
        {
            now = std::max(now, arrival) + lateness.get();
            if (running)
                pace.observeInput(delivered - sent, Block, now);
            delivered += piece;
            continue;
        }
        now = std::max(now, pace.getDueTime()) + lateness.get();
        const double taken = static_cast<double>(Begin) + static_cast<double>(sent) / samplesPerNs;
        const double age = static_cast<double>(pace.getTimestamp()) - taken;
        if (now > Begin + 3 * Second)
        {
            firstAge = firstAge == 0 ? age : firstAge;
            minute.maxStampError = std::max(minute.maxStampError, std::abs(age - firstAge));
            minute.maxFill = std::max(minute.maxFill, (delivered - sent) * Second / Rate);
            minute.maxLate = std::max(minute.maxLate, now - pace.getTimestamp());
        }
        sent += Block;
        pace.advance(Block, now);
    }
    minute.speedPpm = pace.getSpeedPpm();
    return minute;
}

TEST(PaceTest, ASourceWithAClockOfItsOwnNeitherPilesUpNorRunsOut)
{
    for (const double ppm : {-1000.0, -100.0, 0.0, 100.0, 1000.0})
    {
        for (const std::uint64_t piece : {48U, 480U, 1024U, 6000U})
        {
            SCOPED_TRACE(std::to_string(ppm) + " ppm, pieces of " + std::to_string(piece));
            const Minute minute = runMinute(ppm, piece);
            const TimeValue pieceNs = piece * Second / Rate;
            EXPECT_LT(minute.maxFill, 20 * Ms + pieceNs);
            EXPECT_LT(minute.maxLate, 8 * Ms); // a late thread, twice
            EXPECT_LT(minute.maxStampError, static_cast<double>(10 * Ms));
            EXPECT_NEAR(minute.speedPpm, ppm, 100);
        }
    }
}

} // namespace

} // namespace vlx::testing
