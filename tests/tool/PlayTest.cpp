// "vlx receive --play": whether each sample leaves on time. A stream of a sine, whose sender's clock
// is fast, is played into files by ALSA; the sine's phase tells what each sample's time was.
//
// VLX_PLAY_SECONDS in the environment makes the measurement as long as wanted.

#include <cmath>
#include <complex>
#include <cstdlib>
#include <numbers>
#include <thread>

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

/// Sends a sine at a rate that is not quite the announced one, until it is told to end.
class SineSender
{
public:
    explicit SineSender(const std::string& name)
    {
        m_payloader.setNewFormat(Rate, 1, audioUtils::PcmFormat::F32LE);
        EXPECT_TRUE(m_sender.initializeSender(
            name, {}, {}, 0, TimeSyncProtocol::MonotonicSystemClock, NanomsgProtocol::PubSub));
        m_sender.setCurrentPayloader(m_payloader);
        m_sender.startNewSequence();
        m_thread = std::thread([this] { loop(); });
    }

    ~SineSender()
    {
        m_keepRunning = false;
        m_thread.join();
        m_sender.shutdownSender();
    }

    SineSender(const SineSender&) = delete;
    SineSender& operator=(const SineSender&) = delete;

    /// @return when the stream's first sample was taken, nanoseconds of CLOCK_MONOTONIC
    double getBeginNs() const
    {
        return static_cast<double>(m_begin.time_since_epoch().count());
    }

private:
    void loop()
    {
        constexpr double TrueRate = Rate * (1 + SenderPpm * 1e-6);
        std::vector<float> values(FrameSamples);
        for (std::uint64_t frame = 0; m_keepRunning; ++frame)
        {
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
                static_cast<TimeValue>(time.time_since_epoch().count()), 10'000'000,
                ByteView(
                    reinterpret_cast<const unsigned char*>(values.data()),
                    FrameSamples * sizeof(float)));
        }
    }

    const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
    PcmPayloader m_payloader;
    Sender m_sender;
    std::atomic<bool> m_keepRunning = true;
    std::thread m_thread;
};

/// What left a device, by the report of whoever played it.
struct Played
{
    std::vector<float> values;
    json report;

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
                   Rate;
    }
};

struct Errors
{
    double maxNs = 0;
    std::size_t numWindows = 0;
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
    }
    return errors;
}

class PlayTest : public ToolTest
{
protected:
    std::vector<std::string> play(const std::string& name, std::vector<std::string> more) const
    {
        more.insert(more.begin(), {"--play", "file:'" + file(name) + ".raw',raw"});
        more.insert(more.end(), {"--report", file(name) + ".json"});
        return receive(more);
    }

    Played readPlayed(const std::string& name) const
    {
        Played played;
        played.report = readJson(file(name) + ".json");
        played.values.resize(fs::file_size(file(name) + ".raw") / sizeof(float));
        std::ifstream(file(name) + ".raw", std::ios::binary)
            .read(
                reinterpret_cast<char*>(played.values.data()),
                static_cast<std::streamsize>(played.values.size() * sizeof(float)));
        return played;
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
    second.signal(SIGSTOP);
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // what is done here to it
    second.signal(SIGCONT);

    const auto deadline = std::chrono::seconds(seconds) + DefaultDeadline;
    EXPECT_EQ(first.wait(deadline), 0) << first.getErrors();
    EXPECT_EQ(second.wait(deadline), 0) << second.getErrors();
    EXPECT_NE(second.getErrors().find(" underrun"), std::string::npos) << second.getErrors();
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
        const double due = played.report["connections"][0]["first_timestamp"].get<double>() +
                           played.report["play"][0]["latency_ns"].get<double>();
        EXPECT_NEAR(played.getTimeNs(sample), due, MaxErrorNs) << name;
    }
}

TEST_F(PlayTest, ANetworkClockIsFollowed)
{
    ToolProcess sender(send({"--tone", "440", "--clock", "net", "--wait-receivers", "1"}));
    ToolProcess receiver(play("net", {"-d", "1s"}));
    EXPECT_EQ(receiver.wait(), 0) << receiver.getErrors();
    EXPECT_EQ(sender.stop(), 128 + SIGTERM);
    const json report = readJson(file("net.json"));
    EXPECT_EQ(report["connections"][0]["clock"], "gstnetclock");
    // A frame's timestamp is not far from its arrival, once it is told by this machine's clock.
    EXPECT_LT(report["play"][0]["late_samples"], Rate / 2) << report["play"];
    EXPECT_LT(report["play"][0]["samples"], 3 * Rate) << report["play"];
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
    EXPECT_EQ(stopped.stop(), 128 + SIGTERM);
    EXPECT_EQ(sender.stop(), 128 + SIGTERM);
}

} // namespace

} // namespace vlx::testing
