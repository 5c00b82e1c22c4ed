#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <sys/resource.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/BaseDirectory.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Producer.hpp>
#include <vlxkit/RealTime.hpp>

#include "Commands.hpp"
#include "common/CommonOptions.hpp"
#include "common/Duration.hpp"
#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/StopSignal.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

// A sender needs two descriptors for each receiver, a receiver about eight; nanomsg stops the
// process when there are none left.
constexpr rlim_t EnoughDescriptors = 256;

// What is lost in a pause depends on the frame; most streams have ten milliseconds.
constexpr auto LongestPause = milliseconds(10);
constexpr auto PauseProbeInterval = milliseconds(1);

constexpr auto FrameDuration = milliseconds(10);
constexpr int NumFrames = 500;
constexpr auto JoinTimeout = std::chrono::seconds(5);
constexpr std::int64_t MaxAgeNs = 10'000'000;

/// One line: what was checked, the result, and what to do about a failure.
struct Finding
{
    std::string subject;
    std::string result;
    std::string advice; ///< empty: all is well
};

bool print(const Finding& finding)
{
    const bool ok = finding.advice.empty();
    std::printf(
        "%-4s  %-15s  %s%s%s\n", ok ? "ok" : "FAIL", finding.subject.c_str(),
        finding.result.c_str(), ok ? "" : ": ", finding.advice.c_str());
    flushOutput();
    return ok;
}

Finding checkBaseDirectory()
{
    const kit::BaseDirectory base = kit::prepareBaseDirectory(kit::BaseDirectoryUse::Send);
    if (!base.status)
        return {
            "base directory", base.status.getText(),
            "create it, or set TMPDIR to a short path that you may write to"};
    return {"base directory", base.path + (base.created ? ", created" : ", writable"), {}};
}

Finding checkDescriptors()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return {
        "descriptors", std::to_string(limit.rlim_cur),
        limit.rlim_cur < EnoughDescriptors ? "raise the limit, for example with ulimit -n 1024"
                                           : ""};
}

/// Real-time scheduling is optional, so this never fails.
Finding checkRealTime()
{
    const kit::RealTimeScope scope({kit::RealTimeUse::Try});
    return {
        "real-time",
        scope.getStatus() ? "permitted: --realtime works" : scope.getStatus().getText(),
        {}};
}

/// Measures the latest wake-up of a thread for each processor that sleeps a millisecond at a time.
class PauseProbe
{
public:
    PauseProbe()
    {
        for (unsigned i = 0; i < std::max(std::thread::hardware_concurrency(), 1U); ++i)
            m_threads.emplace_back([this](const std::stop_token& stop) { loop(stop); });
    }

    /// @return the longest pause
    nanoseconds stop()
    {
        m_threads.clear();
        return nanoseconds(m_longestNs);
    }

private:
    void loop(const std::stop_token& stop)
    {
        while (!stop.stop_requested())
        {
            const auto due = SteadyClock::now() + PauseProbeInterval;
            std::this_thread::sleep_until(due);
            const auto late = nanoseconds(SteadyClock::now() - due).count();
            auto longest = m_longestNs.load();
            while (late > longest && !m_longestNs.compare_exchange_weak(longest, late))
                ;
        }
    }

    std::atomic<std::int64_t> m_longestNs = 0;
    std::vector<std::jthread> m_threads; // last: they stop and end before the rest
};

/// Sends a stream to this process itself.
Finding checkStream(StopSignal& stop)
{
    const std::string name = "vlx-check-" + makeRandomHex(8); // not to be guessed by other users
    Finding finding{"loopback", {}, "see the lines above, or try -v"};

    kit::Consumer consumer({.name = name}, {.onFrame = [](const kit::Frame&) {}});
    kit::Producer producer({.name = name});
    const std::stop_callback listener(stop.getToken(), [&producer] { producer.stop(); });
    const kit::StreamFormat format;
    kit::Status status = consumer.start();
    if (status)
        status = producer.open(format);
    if (!status)
        finding.result = status.getText();
    else if (!producer.waitForReceivers(1, JoinTimeout))
        finding.result = "no receiver has joined within " + toText(JoinTimeout);
    if (!finding.result.empty())
        return finding;

    const auto samples = format.toSamples(nanoseconds(FrameDuration).count());
    const Buffer silence(samples * format.getBytesPerSample());
    auto due = SteadyClock::now();
    for (int i = 0; i < NumFrames && !stop.waitUntil(due); ++i, due += FrameDuration)
        static_cast<void>(producer.send(
            miscUtils::getMonotonicSysclockTime(), nanoseconds(FrameDuration).count(), silence));
    producer.close();
    consumer.stop();

    const auto lost = producer.getStatistics().frames - consumer.getStatistics().frames;
    const kit::AgeHistogram ages = consumer.getAges();
    const std::int64_t age = ages.getPercentile(0.99).value_or(0);
    finding.result = std::to_string(lost) + " of " +
                     std::to_string(producer.getStatistics().frames) + " frames lost, age p50 " +
                     toMilliseconds(ages.getPercentile(0.5).value_or(0)) + ", p99 " +
                     toMilliseconds(age);
    finding.advice = lost > 0 || age > MaxAgeNs ? "the machine is too busy: try --realtime" : "";
    return finding;
}

Finding checkPauses(nanoseconds longest)
{
    return {
        "scheduling", "longest pause " + toMilliseconds(longest.count()),
        longest > LongestPause ? "frames may be lost: try --realtime, or find out what keeps the "
                                 "machine busy"
                               : ""};
}

ExitCode runCheck(StopSignal& stop)
{
    const bool baseIsFine = print(checkBaseDirectory());
    bool fine = print(checkDescriptors()) && baseIsFine;
    print(checkRealTime());
    if (baseIsFine)
    {
        PauseProbe pauses;
        const Finding stream = checkStream(stop);
        if (stop.isRequested())
            return ExitCode::Done;
        fine = print(checkPauses(pauses.stop())) && fine;
        fine = print(stream) && fine;
    }
    return fine ? ExitCode::Done : ExitCode::Failed;
}

} // unnamed namespace

Subcommand makeCheckCommand()
{
    return {
        [](CLI::App& program) {
            return program.add_subcommand("check", "Check whether this machine is fit for streams");
        },
        [](StopSignal& stop) { return toInt(runCheck(stop)); }};
}

} // namespace vlx::tool
