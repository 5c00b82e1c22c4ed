// The tool's parts that need no process: durations, conversions, timestamps, watches.

#include <array>
#include <limits>

#include <sys/wait.h>
#include <unistd.h>

#include <vlx/VlxReceiver.hpp>
#include <vlxkit/Users.hpp>

#include "audio/PcmCodec.hpp"
#include "common/Duration.hpp"
#include "common/Numbers.hpp"
#include "common/StopSignal.hpp"
#include "monitor/Rendering.hpp"
#include "monitor/StreamMeter.hpp"
#include "support/RawPeers.hpp"

namespace vlx::testing
{

namespace
{

using audioUtils::PcmFormat;

TEST(DurationTest, ReadsNumbersWithUnits)
{
    const std::pair<const char*, std::int64_t> valid[] = {
        {"10ms", 10'000'000},
        {"1.5s", 1'500'000'000},
        {"0.0000000019s", 2},
        {"1000h0.1s7ns", 3'600'000'100'000'007},
        {"250us", 250'000},
        {"7ns", 7},
        {"2min", 120'000'000'000},
        {"2m", 120'000'000'000},
        {"1h", 3'600'000'000'000},
        {"1m30s", 90'000'000'000},
        {"1h0.5s7ns", 3'600'500'000'007},
        {"10", 10'000'000'000},
        {"0.25", 250'000'000},
        {"0.333333333333333333333s", 333'333'333},
        {".5s", 500'000'000},
        {".5", 500'000'000},
        {"1s.5ms", 1'000'500'000}};
    for (const auto& [text, ns] : valid)
        EXPECT_EQ(tool::parseDuration(text), std::chrono::nanoseconds(ns)) << text;
    for (const char* const text :
         {"2503h", "99999999999999999999h", "1m30", "30s1m", "1s1s", ".s", ".", "1.2.3", "ms", "",
          "-1s", "1.s", "1,5s", "1 s", "1S", "1sx"})
        EXPECT_EQ(tool::parseDuration(text), std::nullopt) << text;
}

TEST(NumbersTest, RatesAndNumbersAreReadWhole)
{
    struct Row
    {
        const char* text;
        std::optional<std::uint32_t> rate;
        std::optional<std::uint64_t> number;
    };
    const Row rows[] = {
        {"44100", 44100, 44100},
        {"44.1k", 44100, {}},
        {"48kHz", 48000, {}},
        {"11.025k", 11025, {}},
        {"8000Hz", 8000, {}},
        {"0", {}, 0},
        {"44.1", {}, {}},
        {"44.1005k", {}, {}},
        {"infk", {}, {}},
        {"2000000001", {}, 2'000'000'001},
        {"18446744073709551615", {}, std::numeric_limits<std::uint64_t>::max()},
        {"18446744073709551616", {}, {}},
        {"-1", {}, {}},
        {"k", {}, {}},
        {"1x", {}, {}},
        {"", {}, {}}};
    for (const Row& row : rows)
    {
        EXPECT_EQ(tool::parseRate(row.text), row.rate) << row.text;
        EXPECT_EQ(tool::parseNumber(row.text), row.number) << row.text;
    }
}

TEST(PcmCodecTest, EveryFormatSurvivesDecodingAndEncoding)
{
    for (std::size_t i = 0; i < audioUtils::NumPcmFormats; ++i)
    {
        const auto format = static_cast<PcmFormat>(i);
        Buffer bytes(audioUtils::bytesPerSample(format) * 64);
        for (std::size_t k = 0; k < bytes.size(); ++k)
            bytes[k] = static_cast<std::uint8_t>(k * 37 + 11);
        tool::SampleValues values;
        Buffer result;
        tool::decodeSamples(bytes, format, values);
        tool::encodeSamples(values, format, result);
        EXPECT_EQ(result, bytes) << audioUtils::toString(format);
    }
}

TEST(LevelMeterTest, LevelsAreThoseOfTheIntervalAndPeaksAreHeldForTwoSeconds)
{
    struct Step
    {
        std::chrono::milliseconds time;
        std::vector<float> values;                 // of two channels
        std::vector<std::array<double, 3>> levels; // peak, RMS and held peak of each
    };
    using std::chrono::milliseconds;
    const Step steps[] = {
        {milliseconds(0), {}, {}},
        {milliseconds(100), {0.5F, 0, -0.75F, 0}, {{0.75, 0.6374, 0.75}, {0, 0, 0}}},
        {milliseconds(200), {0.25F, 1}, {{0.25, 0.25, 0.75}, {1, 1, 1}}},
        {milliseconds(300), {}, {}},
        {milliseconds(2100), {0.25F, -0.5F}, {{0.25, 0.25, 0.75}, {0.5, 0.5, 1}}},
        {milliseconds(2101), {0.125F, 0.5F}, {{0.125, 0.125, 0.125}, {0.5, 0.5, 1}}},
        {milliseconds(2201), {0.25F, 0.5F}, {{0.25, 0.25, 0.25}, {0.5, 0.5, 0.5}}}};
    tool::LevelMeter meter;
    meter.setChannels(2);
    for (const Step& step : steps)
    {
        SCOPED_TRACE(step.time.count());
        meter.add(step.values);
        const auto levels = meter.take(tool::LevelMeter::TimePoint() + step.time);
        ASSERT_EQ(levels.size(), step.levels.size());
        for (std::size_t i = 0; i < levels.size(); ++i)
        {
            EXPECT_NEAR(levels[i].peak, step.levels[i][0], 1e-4);
            EXPECT_NEAR(levels[i].rms, step.levels[i][1], 1e-4);
            EXPECT_NEAR(levels[i].heldPeak, step.levels[i][2], 1e-4);
        }
    }
    meter.setChannels(1);
    meter.add({0.5F});
    EXPECT_EQ(meter.take({}).at(0).heldPeak, 0.5) << "of the format before";
}

TEST(RenderingTest, CountsHaveTheirUnits)
{
    tool::StreamSnapshot snapshot;
    snapshot.name = "desk \"1\"\n";
    snapshot.state = "running";
    snapshot.seconds = 2;
    snapshot.frames = 200;
    snapshot.bytes = 384'000;
    snapshot.ages.add(1'500'000);
    snapshot.levels = {{0.5, 0.25, 1}};
    kit::ConsumerStatistics& total = snapshot.total;
    total.state = Receiver::State::Running;
    total.frames = 1234;
    total.gaps = 3;
    total.gapNs = 1'250'000'000;
    total.sequences = 1;
    total.format = {PcmFormat::S16LE, 48000, 2};
    total.reconnects = 4;
    snapshot.totalAges.add(1'500'000);
    total.clock = Receiver::StreamClockType::SyncedNetClock;
    total.clockSynchronized = true;
    total.clockOffsetNs = -1'500'000'000;

    EXPECT_EQ(
        tool::renderLine(snapshot),
        "desk \"1\"\\x0a: running, S16LE 48000 Hz 2ch, sequences 1, 100.0 frames/s 192.0 kB/s, "
        "age p50/p99/max 1.49/1.49/1.50 ms, gaps 3 (1250.0 ms), reconnects 4, stalls 0, "
        "clock gstnetclock, synchronised, offset -1500.000 ms, peak -6.0 dBFS");
    const auto screen = tool::renderScreen(snapshot, 80, false);
    EXPECT_EQ(screen.at(2), "  gaps 3 (1250.0 ms)  reconnects 4  stalls 0");
    EXPECT_TRUE(screen.back().ends_with("    0.0 peak  -12.0 rms dBFS")) << screen.back();
    const std::string metrics = tool::renderMetrics({snapshot});
    for (const std::string line :
         {"vlx_up{} 1", "vlx_frames_total{} 1234", "vlx_gap_seconds_total{} 1.25",
          "vlx_clock_offset_seconds{} -1.5", "vlx_reconnects_total{} 4"})
    {
        std::string labelled = "\n" + line + "\n";
        labelled.insert(labelled.find('}'), R"(stream="desk \"1\"\\x0a")");
        EXPECT_NE(metrics.find(labelled), std::string::npos) << labelled << metrics;
    }
    const std::size_t place = metrics.find("vlx_age_p99_seconds{");
    EXPECT_NEAR(std::stod(metrics.substr(metrics.find("} ", place) + 2)), 0.0015, 1e-5);
}

TEST(UsersTest, AreFoundByNameAndByNumber)
{
    EXPECT_EQ(kit::findUser("root"), 0U);
    EXPECT_EQ(kit::getUserName(0), "root");
    EXPECT_EQ(kit::findUser("4294967294"), 4294967294U);
    EXPECT_EQ(kit::getUserName(4294967294), "4294967294");
    for (const char* const none : {"4294967295", "4294967296", "-1", "", "no such user"})
        EXPECT_EQ(kit::findUser(none), std::nullopt) << none;
}

// In a process of its own, since signals are blocked before there are threads.
TEST(StopSignalTest, ASecondPressComesThreeHundredMillisecondsLater)
{
    using namespace std::chrono_literals;
    using SteadyClock = std::chrono::steady_clock;
    auto [readEnd, writeEnd] = makePipe();
    const auto begin = SteadyClock::now();
    const pid_t child = ::fork();
    if (child == 0)
    {
        tool::blockStopSignals();
        const tool::StopSignal stop;
        while (SteadyClock::now() < begin + DefaultDeadline)
        {
            // Only SIGINT is a press, whenever SIGTERM comes.
            const auto passed = SteadyClock::now() - begin;
            const bool isPress = passed < 200ms || passed > 400ms;
            ::kill(::getpid(), isPress ? SIGINT : SIGTERM);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ::_exit(0);
    }
    writeEnd.close();
    char byte = 0;
    EXPECT_EQ(::read(readEnd.get(), &byte, 1), 0) << "until it has ended";
    EXPECT_GE(SteadyClock::now() - begin, std::chrono::milliseconds(300));
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 128 + SIGINT);
}

} // namespace

} // namespace vlx::testing
