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

std::string toText(std::uint64_t number)
{
    return std::to_string(number);
}

/// Frames that never arrived, those at the very end included.
std::uint64_t countMissing(Fleet& fleet, std::size_t receiver)
{
    return fleet[SenderSlot].countFrames() - fleet[receiver].countFrames();
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

    Table table(
        {"receiver", "sent", "received", "lost", "bursts", "pause ms", "age p50 us", "age p99 us",
         "unexplained"});
    std::uint64_t missing = 0;
    std::uint64_t unexplained = 0;
    for (const std::size_t index : receivers)
    {
        const Slot& slot = fleet[index];
        const LossSummary losses = summariseLosses(fleet, {index}, probe, start);
        const std::uint64_t lost = countMissing(fleet, index);
        missing += lost;
        unexplained += losses.unexplained + (lost - slot.countLost());
        table.addRow(
            {toText(index), toText(fleet[SenderSlot].countFrames()), toText(slot.countFrames()),
             toText(lost), toText(slot.numBursts), format("%.1f", losses.largestPauseMs),
             format("%.0f", toMs(slot.phases[0].times.getQuantile(0.5)) * 1e3),
             format("%.0f", toMs(slot.phases[0].times.getQuantile(0.99)) * 1e3),
             toText(losses.unexplained)});
    }
    table.print();
    std::printf("\n");
    const std::uint64_t sent = fleet[SenderSlot].countFrames();
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
std::string describePhase(Fleet& fleet, const std::vector<std::size_t>& others, std::size_t phase)
{
    std::uint64_t frames = 0;
    std::uint64_t lost = 0;
    double p50 = 0;
    for (const std::size_t index : others)
    {
        const PhaseCounters& counters = fleet[index].phases[phase];
        frames += counters.frames;
        lost += counters.lost;
        p50 += toMs(counters.times.getQuantile(0.5)) * 1e3 / static_cast<double>(others.size());
    }
    const PhaseCounters& sends = fleet[SenderSlot].phases[phase];
    return format(
        "%-8s others: %lu received, %lu lost, age p50 %.0f us; sender: %lu sent, send p50 %.0f "
        "us, p99 %.0f us",
        PhaseNames[phase], frames, lost, p50, sends.frames.load(),
        toMs(sends.times.getQuantile(0.5)) * 1e3, toMs(sends.times.getQuantile(0.99)) * 1e3);
}

double getMedianAge(Fleet& fleet, const std::vector<std::size_t>& receivers, std::size_t phase)
{
    std::vector<double> ages;
    for (const std::size_t index : receivers)
        ages.push_back(toMs(fleet[index].phases[phase].times.getQuantile(0.5)));
    return getMedian(ages);
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
        std::printf("  %s\n", describePhase(fleet, others, phase).c_str());
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
