// The part of "vlx receive" behind its queue, fed with events whose times are made up.

#include "receive/Recorder.hpp"

#include <cstdlib>
#include <limits>
#include <tuple>

#include <unistd.h>

#include "common/Messages.hpp"
#include "common/StopSignal.hpp"
#include "tool/ToolFixture.hpp"

namespace vlx::testing
{

namespace
{

using kit::StreamFormat;
using nlohmann::ordered_json;
using Event = kit::ConsumerEvent;

constexpr TimeValue Second = 1'000'000'000;
constexpr TimeValue FrameNs = Second / 100;
constexpr std::int64_t AgeNs = 1'000'000;
constexpr StreamFormat Format = {audioUtils::PcmFormat::S16LE, 8000, 1};
// Far more than it takes, and far less than writing everything would take.
constexpr auto MaxStopTime = std::chrono::seconds(2);

using Items = std::vector<kit::ConsumerItem>;

Event makeEvent(Event::Kind kind, TimeValue time = 0)
{
    return {.kind = kind, .time = time, .text = "", .fourcc = 0};
}

/// @param time  of the timestamp
kit::ReceivedFrame makeFrame(
    TimeValue time,
    std::int64_t gapNs = 0,
    const StreamFormat& format = Format,
    std::uint64_t numDropped = 0)
{
    kit::ReceivedFrame frame;
    frame.timestamp = time;
    frame.arrival = time + AgeNs;
    frame.duration = FrameNs;
    frame.gapNs = gapNs;
    frame.clock = Receiver::StreamClockType::MonotonicSystemClock;
    frame.clockOffsetNs = 0;
    frame.data = Buffer(format.toSamples(FrameNs) * format.getBytesPerSample(), 1);
    frame.numDropped = numDropped;
    return frame;
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
        EXPECT_NE(::mkdtemp(m_directory.data()), nullptr);
    }

    ~RecorderTest() override
    {
        fs::remove_all(m_directory);
    }

    /// @return the report
    ordered_json record(const Items& items)
    {
        const tool::StopSignal stop;
        tool::Recorder recorder(m_options, {stop, {}}, 0);
        const auto add = [&](const auto& item)
        {
            if constexpr (requires { recorder.add(item); })
                recorder.add(item);
        };
        for (const kit::ConsumerItem& item : items)
            std::visit(add, item);
        recorder.finish();
        m_summary = recorder.summarize();
        ordered_json report;
        recorder.addToReport(report);
        return report;
    }

    tool::RecordingOptions m_options;
    std::string m_summary;
    std::string m_directory = ::testing::TempDir() + "vlx-XXXXXX";
};

TEST_F(RecorderTest, GapsAndOverlapsSplitTheRecordingIntoSegments)
{
    constexpr std::int64_t Ms = 1'000'000;
    Items items;
    items.emplace_back(Format);
    for (const auto& [timestamp, gapNs] :
         {std::pair(100 * Ms, 7 * Ms), // of the time between two connections
          {110 * Ms, 0 * Ms},
          {120 * Ms, 0 * Ms},
          {150 * Ms, 20 * Ms},
          {155 * Ms, -5 * Ms},
          {165 * Ms, 0 * Ms}})
        items.emplace_back(makeFrame(static_cast<TimeValue>(timestamp), gapNs));
    m_options.noFill = true;
    const ordered_json report = record(items);
    const ordered_json& connection = report["connections"][0];
    EXPECT_EQ(connection["gaps"], 1);
    EXPECT_EQ(connection["gap_ns"], 20 * Ms);
    EXPECT_EQ(connection["join_ns"], 100 * Ms + AgeNs);
    EXPECT_EQ(connection["clock"], "sysclock");
    EXPECT_NEAR(connection["age_p99_ns"].get<double>(), AgeNs, AgeNs * 0.016);
    std::string segments;
    for (const ordered_json& each : connection["segments"])
        segments += std::to_string(each["file_sample"].get<int>()) + " " +
                    std::to_string(each["timestamp"].get<std::int64_t>() / Ms) + " " +
                    std::to_string(each["samples"].get<int>()) + "; ";
    EXPECT_EQ(segments, "0 100 240; 240 150 80; 320 155 160; ");
}

TEST_F(RecorderTest, GapsAreFilledWhereTheyAreCountedAndSaid)
{
    for (const bool fills : {true, false})
    {
        for (const auto sampleFormat : {audioUtils::PcmFormat::S8, audioUtils::PcmFormat::U8})
        {
            const StreamFormat format = {sampleFormat, 1000, 1};
            m_options.output = m_directory + (fills ? "/filled" : "/joined");
            m_options.overwrite = true;
            m_options.noFill = !fills;
            Items items;
            items.emplace_back(format);
            items.emplace_back(makeFrame(Second, 0, format));
            items.emplace_back(makeFrame(Second + 4 * FrameNs, 3 * FrameNs, format, 3)); // dropped
            items.emplace_back(format); // another sequence
            items.emplace_back(makeFrame(Second + 6 * FrameNs, FrameNs, format));
            const ordered_json report = record(items);
            EXPECT_EQ(report["overflowed_frames"], 3);
            EXPECT_EQ(report["gap_ns"], 4 * FrameNs);
            EXPECT_EQ(
                m_summary, std::string(fills ? "0.070" : "0.030") +
                               " s received in 3 frames, 2 gaps of 0.040 s in all, " +
                               (fills ? "filled with silence" : "left out") +
                               "; 3 frames lost: the output was too slow");
            const bool isSigned = sampleFormat == audioUtils::PcmFormat::S8;
            const auto silence = [&](std::size_t size)
            { return std::string(fills ? size : 0, isSigned ? '\0' : '\x80'); };
            const std::string frame(10, '\1');
            EXPECT_TRUE(
                readText(m_options.output) == frame + silence(30) + frame + silence(10) + frame);
        }
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
        Items items;
        items.emplace_back(Format);
        items.emplace_back(makeFrame(time));
        for (const Frame& frame : row.frames)
        {
            items.emplace_back(makeEvent(Event::Kind::Lost));
            items.emplace_back(Format);
            items.emplace_back(makeFrame(time += frame.passed, frame.gapNs));
        }
        const ordered_json report = record(items);
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
    Items items;
    std::string sent;
    for (const std::uint32_t rate : {8000U, 16000U, 8000U})
    {
        const StreamFormat format = {Format.sampleFormat, rate, 1};
        items.emplace_back(format);
        for (int i = 0; i < 3; ++i)
        {
            kit::ReceivedFrame frame = makeFrame(Second, 0, format);
            for (unsigned char& byte : frame.data)
                sent += static_cast<char>(byte = static_cast<unsigned char>(sent.size() * 7));
            items.emplace_back(std::move(frame));
        }
    }
    struct Row
    {
        const char* name;
        bool isPlayed;
        tool::OptionalDuration duration, maxDuration;
        std::uint64_t samples;
        std::vector<std::uintmax_t> sizes; // of the files, bytes
    };
    using std::chrono::milliseconds;
    const Row rows[] = {
        {"in the second format", false, milliseconds(45), {}, 480, {480, 480}},
        {"at the end of a format", false, milliseconds(60), {}, 720, {480, 960}},
        {"in the third format", false, milliseconds(75), {}, 840, {480, 960, 240}},
        {"within short files",
         false,
         milliseconds(75),
         milliseconds(20),
         840,
         {320, 160, 640, 320, 240}},
        {"played", true, milliseconds(75), {}, 840, {}}};
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.name);
        m_options.output = row.isPlayed ? "" : m_directory + "/a.raw";
        m_options.play = row.isPlayed ? "null" : "";
        m_options.split = !row.isPlayed;
        m_options.overwrite = true;
        m_options.duration = row.duration;
        m_options.maxDuration = row.maxDuration;
        const ordered_json report = record(items);
        EXPECT_EQ(report["samples"], row.samples);
        std::vector<std::uintmax_t> sizes;
        std::string content;
        for (const ordered_json& file : report["files"])
        {
            content += readText(file.get<std::string>());
            sizes.push_back(fs::file_size(file.get<std::string>()));
        }
        EXPECT_EQ(sizes, row.sizes);
        EXPECT_EQ(content, sent.substr(0, content.size()));
        std::vector<std::uintmax_t> lengths(sizes.size());
        for (const ordered_json& each : report["connections"][0]["segments"])
        {
            if (row.isPlayed)
                continue;
            std::uintmax_t& length = lengths.at(each["file"].get<std::size_t>());
            EXPECT_EQ(each["file_sample"].get<std::uintmax_t>() * 2, length);
            length += each["samples"].get<std::uintmax_t>() * 2;
        }
        EXPECT_EQ(lengths, sizes);
    }
}

TEST_F(RecorderTest, JoinTimesCountFromWhatCausedTheWait)
{
    using Kind = Event::Kind;
    Items items;
    items.emplace_back(Format);
    for (const auto& [joined, ended, end] :
         {std::tuple(2, Kind::Lost, 10),
          {13, Kind::Stalled, 20},
          {0, Kind::Lost, 25},
          {28, Kind::Stalled, 30}})
    {
        if (joined != 0) // it brought frames
            items.emplace_back(makeFrame(static_cast<TimeValue>(joined) * Second - AgeNs));
        items.emplace_back(makeEvent(ended, static_cast<TimeValue>(end) * Second));
    }
    tool::configureMessages({});
    ::testing::internal::CaptureStderr();
    const ordered_json report = record(items);
    // The format, and each end and return of frames: also another stall.
    EXPECT_EQ(countLines(::testing::internal::GetCapturedStderr()), 6U);
    const std::pair<const char*, TimeValue> expected[] = {{"lost", 2}, {"stall", 3}, {"stall", 3}};
    ASSERT_EQ(report["connections"].size(), std::size(expected));
    for (std::size_t i = 0; i < std::size(expected); ++i)
    {
        EXPECT_EQ(report["connections"][i]["ended"], expected[i].first);
        EXPECT_EQ(report["connections"][i]["join_ns"], expected[i].second * Second) << i;
    }
}

TEST_F(RecorderTest, SilenceAndWaitingFramesEndAtAStop)
{
    // Each second of silence in it is a gigabyte and more: 9 s take longer than is allowed.
    constexpr StreamFormat Huge = {audioUtils::PcmFormat::F64LE, 768'000, 255};
    const tool::StopSignal stop;
    tool::Recorder recorder(m_options, {stop, {}}, 0);
    recorder.add(Huge);
    recorder.add(makeFrame(Second, 0, Huge));
    ::kill(::getpid(), SIGTERM);
    ASSERT_TRUE(waitFor([&] { return stop.isRequested(); }));
    const auto begin = std::chrono::steady_clock::now();
    recorder.add(makeFrame(Second, 9 * Second, Huge));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, MaxStopTime);
    EXPECT_TRUE(recorder.isDone());

    // Where frames were lost anyway, the others are not waited for.
    tool::Recorder late(m_options, {stop, {}}, 0);
    late.add(Format);
    std::uint64_t numAdded = 0;
    const auto addMore = [&]
    {
        late.add(makeFrame(Second, 0, Format, 1));
        return late.getNumFrames() < ++numAdded;
    };
    EXPECT_TRUE(waitFor(addMore));
}

} // namespace

} // namespace vlx::testing
