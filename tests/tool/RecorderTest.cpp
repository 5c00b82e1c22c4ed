// The part of "vlx receive" behind its queue, fed with events whose times are made up.

#include "receive/Recorder.hpp"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "common/Messages.hpp"
#include "common/StopSignal.hpp"
#include "support/RawPeers.hpp"

namespace vlx::testing
{

namespace
{

using kit::StreamFormat;
using nlohmann::ordered_json;
using Event = kit::ConsumerEvent;

constexpr TimeValue Second = 1'000'000'000;
constexpr TimeValue FrameNs = Second / 100;
constexpr StreamFormat Format = {audioUtils::PcmFormat::S16LE, 8000, 1};
// Far more than it takes, and far less than writing everything would take.
constexpr auto MaxStopTime = std::chrono::seconds(2);

Event makeEvent(Event::Kind kind)
{
    return {.kind = kind, .time = 0, .text = "", .fourcc = 0};
}

class RecorderTest : public ::testing::Test
{
protected:
    RecorderTest()
    {
        tool::blockStopSignals();
        tool::configureMessages({.quiet = true});
        m_options.output = "/dev/null";
        m_options.type = "raw";
    }

    /// @return the report
    ordered_json record(const std::vector<tool::StreamEvent>& events) const
    {
        const tool::StopSignal stop;
        tool::Recorder recorder(m_options, {stop, {}}, 0);
        for (const tool::StreamEvent& event : events)
            recorder.getQueue().push(event);
        recorder.finish();
        ordered_json report;
        recorder.addToReport(report);
        return report;
    }

    static tool::AnnouncedFormat announce(const StreamFormat& format)
    {
        return {format, Receiver::StreamClockType::MonotonicSystemClock};
    }

    /// @param time  of its arrival
    static tool::ReceivedFrame makeFrame(TimeValue time, std::int64_t gapNs)
    {
        return {time, time, 0, FrameNs, gapNs, Buffer(Format.toSamples(FrameNs) * 2, 1)};
    }

    tool::ReceiveOptions m_options;
};

TEST_F(RecorderTest, EveryOrderOfEventsIsRecorded)
{
    const tool::StreamEvent kinds[] = {
        makeEvent(Event::Kind::Joined), makeEvent(Event::Kind::Lost),
        makeEvent(Event::Kind::Stalled), announce(Format), makeFrame(Second, 0)};
    constexpr std::size_t Length = 5;
    constexpr std::size_t NumOrders = Length * Length * Length * Length * Length;
    for (std::size_t order = 0; order < NumOrders; ++order)
    {
        std::vector<tool::StreamEvent> events;
        std::uint64_t numFrames = 0;
        bool announced = false;
        for (std::size_t rest = order, i = 0; i < Length; rest /= std::size(kinds), ++i)
        {
            events.push_back(kinds[rest % std::size(kinds)]);
            announced |= std::holds_alternative<tool::AnnouncedFormat>(events.back());
            numFrames += announced && std::holds_alternative<tool::ReceivedFrame>(events.back());
        }
        const ordered_json report = record(events);
        ASSERT_EQ(report["frames"], numFrames) << order;
        for (const ordered_json& connection : report["connections"])
        {
            ASSERT_NE(connection["ended"], "running") << order;
            ASSERT_EQ(connection["segments"].size(), 1U) << order;
            numFrames -= connection["frames"].get<std::uint64_t>();
        }
        ASSERT_EQ(numFrames, 0U) << order;
    }
}

TEST_F(RecorderTest, SilenceIsBoundedByTheTimeThatHasPassed)
{
    struct Frame
    {
        TimeValue passed; // since the frame before
        std::int64_t gapNs;
    };
    constexpr std::int64_t Ns = Second;
    struct Row
    {
        const char* name;
        std::vector<Frame> frames; // behind the first one
        std::int64_t filledNs;
    };
    const Row rows[] = {
        {"a restart", {{14 * Second, 14 * Ns}}, 14 * Ns},
        {"a sender that had fallen behind", {{Second, 9 * Ns}}, 9 * Ns},
        {"small jumps, and no time passes", {100, {FrameNs, 99 * Ns / 10}}, 99 * Ns / 10},
        {"one jump too far", {{Second, 12 * Ns}, {Second, Ns}}, Ns},
        {"jumps after a long absence", {{Second * 30, 30 * Ns}, {0, 9 * Ns}, {0, 9 * Ns}}, 39 * Ns},
        {"no gap can be longer", {10, {FrameNs, std::numeric_limits<std::int64_t>::max()}}, 0},
        {"less than a sample", {{FrameNs, 70'000}, {FrameNs, 20'000}, {FrameNs, 10'000}}, 100'000},
        {"lost frames", {{3 * FrameNs, 2 * FrameNs}, {4 * FrameNs, 3 * FrameNs}}, 5 * FrameNs}};
    for (const Row& row : rows)
    {
        TimeValue time = Second;
        std::vector<tool::StreamEvent> events = {
            makeEvent(Event::Kind::Joined), announce(Format), makeFrame(time, 0)};
        for (const Frame& frame : row.frames)
        {
            time += frame.passed;
            events.insert(
                events.end(), {makeEvent(Event::Kind::Lost), makeEvent(Event::Kind::Joined),
                               announce(Format), makeFrame(time, frame.gapNs)});
        }
        const ordered_json report = record(events);
        const TimeValue received = (row.frames.size() + 1) * FrameNs;
        EXPECT_EQ(
            report["samples"], Format.toSamples(received + static_cast<TimeValue>(row.filledNs)))
            << row.name;
        EXPECT_EQ(report["frames"], row.frames.size() + 1) << row.name;
    }
}

TEST_F(RecorderTest, TheDurationCountsOverAllFormatsAndFiles)
{
    // Three sequences of 30 ms each: of 8, 16 and 8 kHz.
    std::vector<tool::StreamEvent> events;
    for (const std::uint32_t rate : {8000U, 16000U, 8000U})
    {
        const StreamFormat format = {Format.sampleFormat, rate, 1};
        events.emplace_back(announce(format));
        for (int i = 0; i < 3; ++i)
        {
            events.emplace_back(makeFrame(Second, 0));
            std::get<tool::ReceivedFrame>(events.back()).data.resize(format.toSamples(FrameNs) * 2);
        }
    }
    struct Row
    {
        const char* name;
        bool isPlayed;
        std::chrono::milliseconds duration, maxDuration;
        std::uint64_t samples;
        std::vector<std::uintmax_t> sizes; // of the files, bytes
    };
    using std::chrono::milliseconds;
    constexpr milliseconds Unlimited(0);
    const Row rows[] = {
        {"in the second format", false, milliseconds(45), Unlimited, 480, {480, 480}},
        {"at the end of a format", false, milliseconds(60), Unlimited, 720, {480, 960}},
        {"in the third format", false, milliseconds(75), Unlimited, 840, {480, 960, 240}},
        {"within short files",
         false,
         milliseconds(75),
         milliseconds(20),
         840,
         {320, 160, 640, 320, 240}},
        {"played", true, milliseconds(75), Unlimited, 840, {}}};
    std::string directory = ::testing::TempDir() + "vlx-XXXXXX";
    ASSERT_NE(::mkdtemp(directory.data()), nullptr);
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.name);
        m_options.output = row.isPlayed ? "" : directory + "/a.raw";
        m_options.play = row.isPlayed ? "null" : "";
        m_options.split = !row.isPlayed;
        m_options.overwrite = true;
        m_options.duration = row.duration;
        m_options.maxDuration = row.maxDuration == Unlimited
                                    ? tool::OptionalDuration()
                                    : tool::OptionalDuration(row.maxDuration);
        const ordered_json report = record(events);
        EXPECT_EQ(report["samples"], row.samples);
        std::vector<std::uintmax_t> sizes;
        for (const ordered_json& file : report["files"])
            sizes.push_back(std::filesystem::file_size(file.get<std::string>()));
        EXPECT_EQ(sizes, row.sizes);
    }
    std::filesystem::remove_all(directory);
}

TEST_F(RecorderTest, JoinTimesCountFromWhatCausedTheWait)
{
    using Kind = Event::Kind;
    std::vector<tool::StreamEvent> events;
    const auto add = [&](Kind kind, TimeValue seconds)
    {
        Event event = makeEvent(kind);
        event.time = seconds * Second;
        events.emplace_back(event);
    };
    for (const auto& [joined, ended, end] :
         {std::tuple(1, Kind::Lost, 10), {12, Kind::Stalled, 20}, {27, Kind::Lost, 30}})
    {
        add(Kind::Joined, static_cast<TimeValue>(joined));
        events.emplace_back(announce(Format));
        events.emplace_back(makeFrame(static_cast<TimeValue>(joined + 1) * Second, 0));
        add(ended, static_cast<TimeValue>(end));
    }
    const ordered_json report = record(events);
    const std::pair<const char*, TimeValue> expected[] = {{"start", 2}, {"loss", 3}, {"stall", 8}};
    for (std::size_t i = 0; i < std::size(expected); ++i)
    {
        const ordered_json& connection = report["connections"][i];
        EXPECT_EQ(connection["joined_after"], expected[i].first);
        EXPECT_EQ(connection["join_ns"], expected[i].second * Second) << expected[i].first;
    }
}

TEST_F(RecorderTest, SilenceAndWaitingFramesEndAtAStop)
{
    // Each second of silence in it is a gigabyte and more.
    constexpr StreamFormat Huge = {audioUtils::PcmFormat::F64LE, 768'000, 255};
    const tool::StopSignal stop;
    tool::Recorder recorder(m_options, {stop, {}}, 0);
    recorder.getQueue().push(announce(Huge));
    recorder.getQueue().push(tool::ReceivedFrame{.data = Buffer(Huge.getBytesPerSample())});
    tool::ReceivedFrame far{.gapNs = 9 * Second, .data = Buffer(Huge.getBytesPerSample())};
    recorder.getQueue().push(far);
    ASSERT_TRUE(waitFor([&] { return recorder.getNumSamples() > 1; }));
    ::kill(::getpid(), SIGTERM);
    ASSERT_TRUE(waitFor([&] { return stop.isRequested(); }));
    const auto begin = std::chrono::steady_clock::now();
    recorder.finish();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, MaxStopTime);
}

} // namespace

} // namespace vlx::testing
