// Loss over time, restarts of the sender, and a receiver that stands still.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <random>

#include <miscUtils/MiscUtils.hpp>

#include "Fleet.hpp"
#include "Runs.hpp"

namespace vlx::stress
{

namespace
{

constexpr std::size_t NumReceivers = 8;
constexpr int DeliverLimitMs = 3'000;
constexpr int GiveUpMs = 15'000;

struct Plan
{
    int numRuns;
    int runSeconds;
    int numRestarts;
    int stopSeconds;
};

constexpr Plan FullPlan = {3, 60, 20, 15};
constexpr Plan QuickPlan = {1, 5, 4, 2};

/// What a section found out, for the table at the end.
struct Result
{
    std::string what;
    std::string limit;
    std::string figure;
    bool passed = false;
};

Result failToJoin(const std::string& what)
{
    return {what, "all receivers join", "they did not within 10 s", false};
}

/// Median over receivers, in microseconds.
double getMedianAge(Fleet& fleet, const std::vector<std::size_t>& receivers, std::size_t phase)
{
    std::vector<double> ages;
    for (const std::size_t index : receivers)
        ages.push_back(toMs(fleet[index].phases[phase].times.getQuantile(0.5)) * 1e3);
    return getMedian(ages);
}

Result runLoss(const PauseProbe& probe, const Plan& plan, int number)
{
    const std::string what = format("loss, run %d of %d", number, plan.numRuns);
    std::printf("%s: 1,920 bytes, 100 frames/s, %d s\n", what.c_str(), plan.runSeconds);
    Fleet fleet;
    WorkerConfig sender = makeWorker(Role::Sender);
    sender.numFrames = static_cast<std::uint64_t>(plan.runSeconds) * 100;
    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    const auto receivers = startStream(fleet, NumReceivers, sender);
    if (receivers.empty())
        return failToJoin(what);
    fleet.waitExit(SenderSlot, (plan.runSeconds + 10) * 1'000);

    const std::uint64_t sent = fleet[SenderSlot].countFrames();
    std::uint64_t missing = 0;
    std::uint64_t unexplained = 0;
    std::printf("  receiver   sent  received  lost  unexplained  pause ms  age p50 us  p99 us\n");
    for (const std::size_t index : receivers)
    {
        const Slot& slot = fleet[index];
        LossSummary losses = summariseLosses(fleet, {index}, probe, start);
        // Those at the very end, which no later frame gives away, count too.
        const std::uint64_t lost = sent - losses.received;
        losses.unexplained += lost - losses.lost;
        missing += lost;
        unexplained += losses.unexplained;
        std::printf(
            "  %8zu %6lu %9lu %5lu %12lu %9.1f %11.0f %7.0f\n", index, sent, losses.received, lost,
            losses.unexplained, losses.largestPauseMs, getMedianAge(fleet, {index}, 0),
            toMs(slot.phases[0].times.getQuantile(0.99)) * 1e3);
    }
    std::printf("\n");
    const double pause = toMs(probe.getLargest(start, miscUtils::getMonotonicSysclockTime()));
    return {
        what, "none lost without a pause of the machine of >= 10 ms",
        format(
            "%lu of %lu lost, %lu of them unexplained; largest pause %.1f ms", missing,
            sent * receivers.size(), unexplained, pause),
        unexplained == 0 && sent == sender.numFrames};
}

Result runRestarts(const Plan& plan)
{
    const std::string what = format("%d restarts of the sender", plan.numRestarts);
    std::printf("%s, killed with -9 at random moments\n", what.c_str());
    Fleet fleet;
    const auto receivers = startStream(fleet, NumReceivers);
    if (receivers.empty())
        return failToJoin(what);
    if (!waitForDelivery(fleet, receivers, 0, GiveUpMs))
        return failToJoin(what);

    std::vector<double> times;
    bool passed = true;
    for (int i = 1; i <= plan.numRestarts && !isInterrupted(); ++i)
    {
        letPass(pickRandom(200, 1'500));
        const TimeValue killed = miscUtils::getMonotonicSysclockTime();
        fleet.kill(SenderSlot);
        fleet.start(SenderSlot, makeWorker(Role::Sender));
        const auto took = waitForDelivery(fleet, receivers, killed, GiveUpMs);
        std::printf(
            "  restart %2d: %s\n", i,
            took ? format("%.1f ms from the kill to the last receiver's first frame", *took).c_str()
                 : "not every receiver came back within 15 s");
        std::fflush(stdout);
        passed = passed && took && *took <= DeliverLimitMs;
        times.push_back(took.value_or(GiveUpMs));
    }
    std::printf("\n");
    std::uint64_t stalls = 0;
    for (const std::size_t index : receivers)
        stalls += fleet[index].stallRestarts;
    if (times.empty())
        return {what, "", "interrupted", false};
    return {
        what, "each receiver delivers again within 3 s",
        format(
            "p50 %.1f ms, max %.1f ms; stall watch used %lu times", getMedian(times),
            *std::max_element(times.begin(), times.end()), stalls),
        passed};
}

constexpr const char* PhaseNames[NumPhases] = {"before", "stopped", "resumed"};

/// One row: all receivers but the stopped one in one phase.
void printPhase(Fleet& fleet, const std::vector<std::size_t>& others, std::size_t phase)
{
    std::uint64_t frames = 0;
    std::uint64_t lost = 0;
    for (const std::size_t index : others)
    {
        frames += fleet[index].phases[phase].frames;
        lost += fleet[index].phases[phase].lost;
    }
    const PhaseCounters& sends = fleet[SenderSlot].phases[phase];
    std::printf(
        "  %-8s others: %lu received, %lu lost, age p50 %.0f us; sender: %lu sent, a send takes "
        "p50 %.0f us, p99 %.0f us\n",
        PhaseNames[phase], frames, lost, getMedianAge(fleet, others, phase), sends.frames.load(),
        toMs(sends.times.getQuantile(0.5)) * 1e3, toMs(sends.times.getQuantile(0.99)) * 1e3);
}

std::vector<Result> runStop(const PauseProbe& probe, const Plan& plan)
{
    constexpr double MaxAgeRatio = 2;
    const std::string what = format("one of %zu receivers SIGSTOPped", NumReceivers);
    std::printf("%s for %d s\n", what.c_str(), plan.stopSeconds);
    Fleet fleet;
    auto others = startStream(fleet, NumReceivers);
    if (others.empty())
        return {failToJoin(what)};
    const std::size_t stopped = others.back();
    others.pop_back();
    letPass(500);

    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    letPass(plan.stopSeconds * 1'000);
    fleet.signal(stopped, SIGSTOP);
    fleet.getBlock().phase = 1;
    letPass(plan.stopSeconds * 1'000);
    fleet.getBlock().phase = 2;
    const std::uint64_t framesBefore = fleet[stopped].countFrames();
    const TimeValue resumed = miscUtils::getMonotonicSysclockTime();
    fleet.signal(stopped, SIGCONT);
    // The few frames that wait in buffers do not count: it has to follow the stream again.
    const bool delivers =
        waitUntil(GiveUpMs, [&] { return fleet[stopped].countFrames() > framesBefore + 20; });
    const double tookMs = toMs(miscUtils::getMonotonicSysclockTime() - resumed);
    letPass(plan.stopSeconds * 500);

    for (std::size_t phase = 0; phase < NumPhases; ++phase)
        printPhase(fleet, others, phase);
    std::printf("\n");
    const LossSummary losses = summariseLosses(fleet, others, probe, start);
    const double ratio = getMedianAge(fleet, others, 1) / getMedianAge(fleet, others, 0);
    const double sentPercent = static_cast<double>(fleet[SenderSlot].phases[1].frames) /
                               static_cast<double>(plan.stopSeconds);
    return {
        {what, "others lose nothing without a pause of the machine", losses.toText(),
         losses.unexplained == 0},
        {"  sender and others meanwhile", "age p50 at most doubled, 99 % of frames sent",
         format("age p50 x %.2f, %.1f %% sent", ratio, sentPercent),
         ratio <= MaxAgeRatio && sentPercent >= 99},
        {"  the stopped one, resumed", "20 frames within 3 s", format("%.0f ms", tookMs),
         delivers && tookMs <= DeliverLimitMs}};
}

} // namespace

int runEndurance(const Arguments& arguments)
{
    const Plan plan = hasOption(arguments, "--quick") ? QuickPlan : FullPlan;
    const unsigned seed = std::random_device{}();
    seedRandom(seed);
    printMachine("endurance", seed);
    const RunDirectory directory;
    const PauseProbe probe;

    std::vector<Result> results;
    for (int i = 1; i <= plan.numRuns && !isInterrupted(); ++i)
        results.push_back(runLoss(probe, plan, i));
    results.push_back(runRestarts(plan));
    for (Result& result : runStop(probe, plan))
        results.push_back(std::move(result));

    Table table({"what", "limit", "figure", "result"});
    bool passed = !isInterrupted();
    for (const Result& result : results)
    {
        table.addRow({result.what, result.limit, result.figure, result.passed ? "ok" : "FAILED"});
        passed = passed && result.passed;
    }
    table.print();
    return passed ? ExitPassed : ExitFailed;
}

} // namespace vlx::stress
