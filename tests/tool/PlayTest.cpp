// "vlx receive --play": each sample leaves on time. A stream of a sine, whose sender's clock is
// fast, is played into files by ALSA; the sine's phase shows when each sample was taken.
//
// VLX_PLAY_SECONDS in the environment makes the measurement as long as wanted.

#include <cmath>
#include <complex>
#include <cstdlib>
#include <cstring>
#include <numbers>

#include "support/TestProvider.hpp"
#include "tool/ToolFixture.hpp"

namespace vlx::testing
{

namespace
{

constexpr double NsPerSecond = 1e9;
constexpr double SineHz = 100;
constexpr double SenderPpm = 200;
constexpr double MaxErrorNs = 1e6;
constexpr std::size_t FrameSamples = 480;
// Of the energy: ten times what resampling leaves, and less than a seam at every frame makes.
constexpr double MaxImpurity = 1e-4;

/// Sends a sine at a rate that is not quite the announced one, until it is destroyed. It may pause
/// once, for a second after its first one, and then begins another sequence.
class SineSender
{
public:
    /// @param provider  of the clock that the timestamps stand on; null: CLOCK_MONOTONIC
    explicit SineSender(
        const std::string& name,
        bool pauses = false,
        const TestProvider* provider = nullptr)
        : m_pauses(pauses),
          m_offsetNs(provider != nullptr ? provider->getOffsetNs() : 0),
          m_sender(name, m_payloader, NanomsgProtocol::PubSub, describe(provider)),
          m_thread([this] { loop(); })
    {
    }

    ~SineSender()
    {
        m_keepRunning = false;
        m_thread.join();
    }

    /// @return when the stream's first sample was taken, nanoseconds of CLOCK_MONOTONIC
    double getBeginNs() const
    {
        return static_cast<double>(m_begin.time_since_epoch().count());
    }

private:
    static RawClockInfo describe(const TestProvider* provider)
    {
        if (provider == nullptr)
            return {};
        return {provider->getAddress(), provider->getPort(), TimeSyncProtocol::GstNetClock};
    }

    void loop()
    {
        constexpr double TrueRate = Rate * (1 + SenderPpm * 1e-6);
        constexpr std::uint64_t FramesPerSecond = Rate / FrameSamples;
        std::vector<float> values(FrameSamples);
        for (std::uint64_t frame = 0; m_keepRunning; ++frame)
        {
            if (m_pauses && frame == FramesPerSecond)
            {
                frame += FramesPerSecond;
                std::this_thread::sleep_until(m_begin + std::chrono::seconds(2));
                m_sender.startNewSequence();
            }
            const double firstSample = static_cast<double>(frame * FrameSamples);
            for (std::size_t i = 0; i < FrameSamples; ++i)
                values[i] = static_cast<float>(
                    0.5 * std::sin(
                              2 * std::numbers::pi * SineHz *
                              (firstSample + static_cast<double>(i)) / TrueRate));
            const auto time = m_begin + std::chrono::nanoseconds(
                                            std::llround(firstSample / TrueRate * NsPerSecond));
            std::this_thread::sleep_until(time);
            m_sender.sendMediaData(
                static_cast<TimeValue>(time.time_since_epoch().count() + m_offsetNs), 10'000'000,
                ByteView(
                    reinterpret_cast<const unsigned char*>(values.data()),
                    FrameSamples * sizeof(float)));
        }
    }

    const bool m_pauses;
    const std::int64_t m_offsetNs; // of the timestamps against CLOCK_MONOTONIC
    const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
    FormattedPayloader m_payloader{Rate, 1, audioUtils::PcmFormat::F32LE};
    OpenSender m_sender;
    std::atomic<bool> m_keepRunning = true;
    std::thread m_thread; // last
};

/// What left a device, by the report of whoever played it.
struct Played
{
    std::vector<float> values;
    json report;
    double rate = Rate; // of the device's clock

    /// @return when a sample left, nanoseconds of CLOCK_MONOTONIC
    double getTimeNs(std::size_t sample) const
    {
        json origin;
        for (const json& each : report["play"][0]["origins"])
        {
            if (each["sample"].get<std::size_t>() <= sample)
                origin = each;
        }
        return origin["time"].get<double>() +
               static_cast<double>(sample - origin["sample"].get<std::size_t>()) * NsPerSecond /
                   rate;
    }
};

/// How far samples were from their time.
struct Errors
{
    double maxNs = 0;
    std::size_t numWindows = 0;
    std::size_t numImpure = 0; // windows that hold more than the sine
};

/// Compares, in windows of whole periods, when samples left with when they should have.
Errors measureErrors(const Played& played, double beginNs)
{
    constexpr std::size_t Window = Rate / 10;
    Errors errors;
    const double latencyNs = played.report["play"][0]["latency_ns"];
    for (std::size_t first = 0; first + Window <= played.values.size(); first += Window)
    {
        const double streamNs = played.getTimeNs(first) - latencyNs - beginNs;
        std::complex<double> sum = 0;
        double energy = 0;
        for (std::size_t i = 0; i < Window; ++i)
        {
            const double seconds = streamNs / NsPerSecond + static_cast<double>(i) / Rate;
            const double value = static_cast<double>(played.values[first + i]);
            sum += value * std::polar(1.0, -2 * std::numbers::pi * SineHz * seconds);
            energy += value * value;
        }
        if (energy < 0.1 * Window) // mostly silence; the sine alone has an eighth
            continue;
        // The sine itself has a phase of a quarter turn behind the cosine.
        const double turns = std::arg(sum * std::complex<double>(0, 1)) / (2 * std::numbers::pi);
        errors.maxNs = std::max(errors.maxNs, std::abs(turns) / SineHz * NsPerSecond);
        ++errors.numWindows;
        const double purity = 2 * std::norm(sum) / Window / energy;
        errors.numImpure += purity < 1 - MaxImpurity ? 1U : 0U;
    }
    return errors;
}

class PlayTest : public ToolTest
{
protected:
    Arguments play(const std::string& name, const Arguments& more) const
    {
        const Arguments files = {
            "--play", "file:'" + file(name) + ".raw',raw", "--report", file(name) + ".json"};
        return receive(join(files, more));
    }

    Played readPlayed(const std::string& name) const
    {
        const std::string bytes = readText(file(name) + ".raw");
        std::vector<float> values(bytes.size() / sizeof(float));
        std::memcpy(values.data(), bytes.data(), values.size() * sizeof(float));
        return {values, readJson(file(name) + ".json")};
    }
};

TEST_F(PlayTest, EachSampleLeavesOnTimeAtEveryReceiver)
{
    const char* const wanted = std::getenv("VLX_PLAY_SECONDS");
    const int seconds = wanted == nullptr ? 4 : std::atoi(wanted);
    const std::string duration = std::to_string(seconds) + "s";
    SineSender sender(getSocketName());
    ToolProcess first(play("first", {"-d", duration}));
    ToolProcess second(play("second", {"-d", duration, "--latency", "200ms"}));
    // What leaves late because the process stood still is told, and what follows is on time again.
    ASSERT_TRUE(waitForSize(file("second.raw"), Rate * sizeof(float)));
    second.suspend();
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // what is done here to it
    second.signal(SIGCONT);

    const auto deadline = std::chrono::seconds(seconds) + DefaultDeadline;
    EXPECT_EQ(first.wait(deadline), 0) << first.getErrors();
    EXPECT_EQ(second.wait(deadline), 0) << second.getErrors();
    EXPECT_THAT(second.getErrors(), HasSubstr(" underrun"));
    for (const char* const name : {"first", "second"})
    {
        const Played played = readPlayed(name);
        const Errors errors = measureErrors(played, sender.getBeginNs());
        std::printf(
            "%s: %zu windows of 0.1 s, largest error %.0f ns, %d underrun(s)\n", name,
            errors.numWindows, errors.maxNs, played.report["play"][0]["underruns"].get<int>());
        EXPECT_GT(errors.numWindows, static_cast<std::size_t>(seconds * 2));
        EXPECT_LT(errors.maxNs, MaxErrorNs) << name;

        // A whole period more or less would not show in the phase.
        if (played.report["play"][0]["late_samples"] > 0) // on a busy machine
            continue;
        const auto begin = std::find_if(
            played.values.begin(), played.values.end(), [](float value) { return value > 0.01F; });
        const auto sample = static_cast<std::size_t>(begin - played.values.begin());
        const double due =
            played.report["connections"][0]["segments"][0]["timestamp"].get<double>() +
            played.report["play"][0]["latency_ns"].get<double>();
        EXPECT_NEAR(played.getTimeNs(sample), due, MaxErrorNs) << name;
    }
}

TEST_F(PlayTest, ASecondSequenceAfterAPauseLeavesOnTime)
{
    const SineSender sender(getSocketName(), true);
    // The time-out is one for the first frame.
    runTool(play("paused", {"-d", "2s", "--timeout", "2500ms"}));
    const Played played = readPlayed("paused");
    EXPECT_EQ(played.report["connections"].size(), 1U);
    EXPECT_GT(played.values.size(), 2 * Rate + Rate / 2U) << "it ended before the second sequence";
    const Errors errors = measureErrors(played, sender.getBeginNs());
    EXPECT_GT(errors.numWindows, 10U);
    EXPECT_LT(errors.maxNs, MaxErrorNs);
    // Those around the pause, and what a busy machine interrupts.
    EXPECT_LT(errors.numImpure, errors.numWindows / 3);
}

TEST_F(PlayTest, ANetworkClockFarFromThisMachinesIsFollowed)
{
    constexpr std::int64_t OffsetNs = 5LL * 3600 * 1'000'000'000;
    TestProvider provider;
    provider.start(OffsetNs);
    const SineSender sender(getSocketName(), false, &provider);
    runTool(play("net", {"-d", "2s"}));
    const Played played = readPlayed("net");
    const json& connection = played.report["connections"][0];
    EXPECT_EQ(connection["clock"], "gstnetclock");
    EXPECT_GT(connection["segments"][0]["timestamp"], OffsetNs);
    EXPECT_LT(connection["join_ns"], OffsetNs);
    EXPECT_LT(played.report["play"][0]["late_samples"], Rate) << played.report["play"];
    // Playback before the clock was synchronised is unknown.
    const Errors errors = measureErrors(played, sender.getBeginNs());
    EXPECT_GT(errors.numWindows, 5U);
    EXPECT_LT(errors.maxNs, 5 * MaxErrorNs);
}

TEST_F(PlayTest, ACardsOwnClockAndQueueAreFollowed)
{
    constexpr int CardPpm = -200;
    std::ofstream(file("asound.conf"))
        << "</usr/share/alsa/alsa.conf>\n"
        << "pcm_type.vlxtest { lib \"" VLX_TEST_CARD "\" }\n"
        << "pcm.card { type vlxtest file \"" << file("card.raw") << "\" ppm " << CardPpm << " }\n";
    ::setenv("ALSA_CONFIG_PATH", file("asound.conf").c_str(), 1);
    const SineSender sender(getSocketName());
    runTool(receive({"--play", "card", "-d", "3s", "--report", file("card.json")}));
    ::unsetenv("ALSA_CONFIG_PATH");
    Played played = readPlayed("card");
    played.rate = Rate * (1 + CardPpm * 1e-6);
    const Errors errors = measureErrors(played, sender.getBeginNs());
    EXPECT_GT(errors.numWindows, 10U) << played.report["play"];
    EXPECT_LT(errors.maxNs, MaxErrorNs) << played.report["play"];
    EXPECT_EQ(played.report["play"][0]["samples"], played.values.size());
}

TEST_F(PlayTest, WhatCannotBePlayedOnIsSaid)
{
    ToolProcess sender(send({"--tone", "440"}));
    // The second one fails as soon as it is written to, as a device that is pulled out.
    for (const char* const name : {"no-such-device", "file:'/dev/full',raw"})
        expectRefusal(
            receive({"--play", name, "-q"}), 1, "cannot play on \"" + std::string(name) + "\"");
    expectRefusal(receive({"--play", "null", "--raw"}), 2, "--raw excludes --play");
    ToolProcess stopped(receive({"--play", "null"}));
    ASSERT_TRUE(waitFor([&] { return countLines(stopped.getErrors()) > 0; }));
}

} // namespace

} // namespace vlx::testing
