// A long run that looks for growth: memory, descriptors, threads, and loss over time.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <numeric>
#include <random>

#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "Fleet.hpp"
#include "Runs.hpp"

namespace vlx::stress
{

namespace
{

constexpr std::size_t NumReceivers = 16;
constexpr std::size_t NumRejoining = 4;
constexpr std::size_t VisitorSlot = FirstReceiverSlot + NumReceivers;
constexpr unsigned SequenceEveryMs = 2'000;
constexpr double WarmUpShare = 0.2;  // of the samples, left out of every judgement
constexpr double LeastNoiseKiB = 16; // four pages: memory comes in pages

/// Mean over the processes of a group at one moment.
struct Sample
{
    double seconds = 0;
    double pssKiB = 0;
    double rssKiB = 0;
    double descriptors = 0;
    double threads = 0;
    double lost = 0;
};

struct Group
{
    const char* name;
    std::vector<std::size_t> slots;
    std::vector<Sample> samples = {};
};

void takeSample(Fleet& fleet, Group& group, double seconds)
{
    Sample sample;
    sample.seconds = seconds;
    const auto number = static_cast<double>(group.slots.size());
    for (const std::size_t index : group.slots)
    {
        const ProcessFigures figures = readProcessFigures(fleet.getPid(index));
        sample.pssKiB += figures.pssKiB / number;
        sample.rssKiB += figures.rssKiB / number;
        sample.descriptors += figures.descriptors / number;
        sample.threads += figures.threads / number;
        sample.lost += static_cast<double>(fleet[index].countLost());
    }
    group.samples.push_back(sample);
}

using Field = double Sample::*;

std::vector<double> takeField(const std::vector<Sample>& samples, Field field)
{
    std::vector<double> values;
    for (const Sample& sample : samples)
        values.push_back(sample.*field);
    return values;
}

double sumOfProducts(const std::vector<double>& left, const std::vector<double>& right)
{
    return std::inner_product(left.begin(), left.end(), right.begin(), 0.0);
}

void subtractMean(std::vector<double>& values)
{
    const double mean =
        std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
    for (double& value : values)
        value -= mean;
}

/// A straight line through the memory of a group.
struct Trend
{
    double slope = 0;     ///< KiB per second
    double halfWidth = 0; ///< of the slope's 95 % interval
    double growth = 0;    ///< KiB over the time looked at
    double noise = 0;     ///< KiB: two standard deviations around the line

    bool isWithinNoise() const
    {
        return slope - halfWidth <= 0 || growth <= noise;
    }
};

/// Least squares. Successive samples are not independent: the interval is widened by what their
/// residuals have in common with their neighbours.
Trend fitTrend(const std::vector<Sample>& samples)
{
    std::vector<double> times = takeField(samples, &Sample::seconds);
    std::vector<double> residuals = takeField(samples, &Sample::pssKiB);
    const double duration = times.back() - times.front();
    subtractMean(times);
    subtractMean(residuals);

    Trend trend;
    trend.slope = sumOfProducts(times, residuals) / sumOfProducts(times, times);
    for (std::size_t i = 0; i < residuals.size(); ++i)
        residuals[i] -= trend.slope * times[i];
    const double squares = sumOfProducts(residuals, residuals);
    double neighbours = 0;
    for (std::size_t i = 1; i < residuals.size(); ++i)
        neighbours += residuals[i] * residuals[i - 1];
    const double correlation = squares > 0 ? std::clamp(neighbours / squares, 0.0, 0.95) : 0;

    const double degrees = std::max(static_cast<double>(residuals.size()) - 2, 1.0);
    const double deviation = std::sqrt(squares / degrees);
    const double widening = std::sqrt((1 + correlation) / (1 - correlation));
    trend.halfWidth = 1.96 * widening * deviation / std::sqrt(sumOfProducts(times, times));
    trend.growth = trend.slope * duration;
    trend.noise = std::max(2 * deviation, LeastNoiseKiB);
    return trend;
}

/// Medians of a field over the first and the last fifth.
std::pair<double, double> compareEnds(const std::vector<Sample>& samples, Field field)
{
    const std::vector<double> values = takeField(samples, field);
    const auto fifth = static_cast<std::ptrdiff_t>(std::max<std::size_t>(values.size() / 5, 1));
    return {
        getMedian({values.begin(), values.begin() + fifth}),
        getMedian({values.end() - fifth, values.end()})};
}

/// Three panels above each other: memory, descriptors and threads, loss.
constexpr const char* GnuplotScript = R"(
set terminal svg size 900,1000 font 'sans,13' background 'white'
set multiplot layout 3,1
set grid
set key outside right
set yrange [0:*]
set xlabel 'minutes'
names = 'sender steady rejoining'
set ylabel 'memory per process, PSS, KiB'
plot for [n in names] file.n using 1:2 with lines lw 1.5 title n
set ylabel 'descriptors (upper) and threads (lower)'
plot for [n in names] file.n using 1:3 with lines lw 1.5 title n.', descriptors', \
     for [n in names] file.n using 1:4 with lines lw 1.5 title n.', threads'
set ylabel 'frames lost so far, all together'
plot for [n in names] file.n using 1:5 with lines lw 1.5 title n
)";

void draw(const std::vector<Group>& groups, const std::string& directory, const std::string& target)
{
    for (const Group& group : groups)
    {
        std::ofstream file(directory + "/" + group.name);
        for (const Sample& sample : group.samples)
            file << sample.seconds / 60 << ' ' << sample.pssKiB << ' ' << sample.descriptors << ' '
                 << sample.threads << ' ' << sample.lost << '\n';
    }
    FILE* const gnuplot = ::popen("gnuplot", "w");
    if (gnuplot == nullptr)
        return;
    std::fprintf(
        gnuplot, "file = '%s/'\nset output '%s'\n%s", directory.c_str(), target.c_str(),
        GnuplotScript);
    const bool isDrawn = ::pclose(gnuplot) == 0;
    std::printf("%s %s\n\n", isDrawn ? "picture:" : "no picture, gnuplot failed:", target.c_str());
}

/// Lets a stream run, with a visitor that joins, and is killed before each sample.
std::vector<Group> observe(Fleet& fleet, const std::vector<std::size_t>& receivers, int minutes)
{
    const auto firstRejoining = receivers.end() - NumRejoining;
    std::vector<Group> groups = {
        {"sender", {SenderSlot}},
        {"steady", {receivers.begin(), firstRejoining}},
        {"rejoining", {firstRejoining, receivers.end()}}};
    const int visitMs = minutes < 5 ? 700 : 4'700;
    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    const TimeValue end = start + static_cast<TimeValue>(minutes) * 60 * NsPerSecond;
    while (miscUtils::getMonotonicSysclockTime() < end && !isInterrupted())
    {
        fleet.start(VisitorSlot, makeWorker(Role::Receiver));
        letPass(visitMs);
        fleet.kill(VisitorSlot);
        letPass(300);
        const double seconds = toMs(miscUtils::getMonotonicSysclockTime() - start) / 1e3;
        for (Group& group : groups)
            takeSample(fleet, group, seconds);
    }
    return groups;
}

/// @return whether a group neither grows nor keeps descriptors or threads
bool addRow(Table& table, const Group& group)
{
    const auto firstKept =
        static_cast<std::ptrdiff_t>(WarmUpShare * static_cast<double>(group.samples.size()));
    const std::vector<Sample> samples(group.samples.begin() + firstKept, group.samples.end());
    const Trend trend = fitTrend(samples);
    const auto descriptors = compareEnds(samples, &Sample::descriptors);
    const auto threads = compareEnds(samples, &Sample::threads);
    // Those that are just leaving or joining shift a mean by a little, but not by a whole one.
    const bool isOk = trend.isWithinNoise() && descriptors.second - descriptors.first < 1 &&
                      threads.second - threads.first < 1;
    constexpr double SecondsPerHour = 3'600;
    table.addRow(
        {group.name, std::to_string(group.slots.size()), format("%.0f", samples.back().pssKiB),
         format("%.0f", samples.back().rssKiB),
         format("%+.1f +- %.1f", trend.slope * SecondsPerHour, trend.halfWidth * SecondsPerHour),
         format("%+.1f / %.1f", trend.growth, trend.noise),
         format("%.1f -> %.1f", descriptors.first, descriptors.second),
         format("%.1f -> %.1f", threads.first, threads.second), isOk ? "ok" : "FAILED"});
    return isOk;
}

bool report(Fleet& fleet, const std::vector<Group>& groups, const PauseProbe& probe)
{
    Table table(
        {"processes", "n", "PSS KiB", "RSS KiB", "slope KiB/h, 95 %", "growth / noise KiB",
         "descriptors", "threads", "result"});
    bool isOk = true;
    for (const Group& group : groups)
        isOk = addRow(table, group) && isOk;
    table.print();

    const LossSummary losses = summariseLosses(fleet, groups[1].slots, probe, 0);
    std::uint64_t rejoins = 0;
    std::uint64_t stalls = 0;
    for (const Group& group : groups)
        for (const std::size_t index : group.slots)
        {
            rejoins += fleet[index].joins;
            stalls += fleet[index].stallRestarts;
        }
    const bool isLossOk = losses.unexplained == 0 && losses.received > 0;
    std::printf(
        "\nsteady receivers: %s: %s\n%lu frames and %lu sequences sent, %lu joins, stall watch "
        "used "
        "%lu times, %lu errors logged by the sender\n",
        losses.toText().c_str(), isLossOk ? "ok" : "FAILED", fleet[SenderSlot].countFrames(),
        fleet[SenderSlot].sequences.load(), rejoins, stalls, fleet[SenderSlot].errorLines.load());
    return isOk && isLossOk;
}

} // namespace

int runSoak(const Arguments& arguments)
{
    const int minutes = getMinutes(arguments, 30);
    const std::string picture =
        getOption(arguments, "--svg", format("/tmp/vlx-soak-%d.svg", static_cast<int>(::getpid())));
    printMachine(format("soak, %d minutes", minutes), 0);
    const RunDirectory directory;
    const PauseProbe probe;
    Fleet fleet;

    WorkerConfig sender = makeWorker(Role::Sender);
    sender.sequenceEveryMs = SequenceEveryMs;
    auto receivers = startStream(fleet, NumReceivers, sender);
    if (receivers.empty())
    {
        std::printf("the receivers did not join\n");
        return ExitFailed;
    }
    for (std::size_t i = NumReceivers - NumRejoining; i < NumReceivers; ++i)
    {
        WorkerConfig rejoining = makeWorker(Role::Receiver);
        rejoining.rejoinEveryMs = 500 + 40 * static_cast<unsigned>(i);
        fleet.start(receivers[i], rejoining);
    }
    const std::vector<Group> groups = observe(fleet, receivers, minutes);
    if (groups.front().samples.size() < 10)
        return ExitFailed;
    draw(groups, directory.getPath(), picture);
    return report(fleet, groups, probe) && !isInterrupted() ? ExitPassed : ExitFailed;
}

} // namespace vlx::stress
