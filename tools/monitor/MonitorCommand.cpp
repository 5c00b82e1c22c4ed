#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <set>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "Commands.hpp"
#include "Rendering.hpp"
#include "StreamMeter.hpp"
#include "common/CommonOptions.hpp"
#include "common/Duration.hpp"
#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/ReportFile.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

struct MonitorOptions
{
    std::vector<std::string> names;
    bool json = false;
    std::string metrics; // path; empty: not written
    OptionalDuration duration;
    OptionalDuration timeout;
    kit::RealTime realTime;
    std::optional<uid_t> senderUser;
};

using SteadyClock = std::chrono::steady_clock;

constexpr auto ScreenInterval = std::chrono::milliseconds(200);
constexpr auto LineInterval = std::chrono::seconds(1);
constexpr auto MetricsInterval = std::chrono::seconds(1);

using Meters = std::vector<std::unique_ptr<StreamMeter>>;
using Snapshots = std::vector<StreamSnapshot>;

/// Draws all streams in place. The last picture stays on the screen.
class Screen
{
public:
    explicit Screen(bool colored) : m_colored(colored) {}

    void draw(const Snapshots& snapshots)
    {
        const TerminalSize size = getTerminalSize(STDOUT_FILENO);
        std::vector<std::string> lines;
        for (const StreamSnapshot& snapshot : snapshots)
        {
            // The last column stays free: a character there would begin another line.
            const auto more = renderScreen(snapshot, size.width - 1, m_colored);
            lines.insert(lines.end(), more.begin(), more.end());
        }
        // Lines that have scrolled away could not be drawn again.
        if (lines.size() >= size.height)
        {
            lines.resize(std::max<std::size_t>(size.height, 2) - 2);
            lines.push_back("... more than fits the terminal");
        }

        std::string picture;
        if (m_numLines > 0)
            picture = "\033[" + std::to_string(m_numLines) + "A\r";
        for (const std::string& line : lines)
            picture += line + "\033[K\n";
        picture += "\033[J";
        std::fwrite(picture.data(), 1, picture.size(), stdout);
        flushOutput();
        m_numLines = lines.size();
    }

private:
    const bool m_colored;
    std::size_t m_numLines = 0; // on the screen now
};

Snapshots takeSnapshots(const Meters& meters)
{
    Snapshots snapshots;
    for (const auto& meter : meters)
        snapshots.push_back(meter->takeSnapshot());
    return snapshots;
}

void printLines(const Snapshots& snapshots, bool json)
{
    for (const StreamSnapshot& snapshot : snapshots)
    {
        if (json)
            writeJson("-", renderJson(snapshot), -1);
        else
            std::puts(renderLine(snapshot).c_str());
    }
    flushOutput();
}

bool hasFrames(const Snapshots& snapshots)
{
    return std::any_of(
        snapshots.begin(), snapshots.end(),
        [](const StreamSnapshot& snapshot) { return snapshot.total.frames > 0; });
}

void watch(const MonitorOptions& options, const Meters& meters, bool onScreen, StopSignal& stop)
{
    const auto begin = SteadyClock::now();
    const auto end = options.duration ? begin + *options.duration : SteadyClock::time_point::max();
    const std::chrono::nanoseconds interval = onScreen ? ScreenInterval : LineInterval;
    Screen screen(usesColor(STDOUT_FILENO));
    auto metricsDue = begin;
    for (auto due = begin + interval;; due = std::max(due + interval, SteadyClock::now()))
    {
        const bool stopped = stop.waitUntil(std::min(due, end));
        const Snapshots snapshots = takeSnapshots(meters);
        if (onScreen)
            screen.draw(snapshots);
        else
            printLines(snapshots, options.json);
        if (!options.metrics.empty() && SteadyClock::now() >= metricsDue)
        {
            writeTextFile(options.metrics, renderMetrics(snapshots));
            metricsDue += MetricsInterval;
        }
        if (stopped || SteadyClock::now() >= end)
            return;
        if (options.timeout && !hasFrames(snapshots) &&
            SteadyClock::now() - begin >= *options.timeout)
            throw CommandFailure(
                ExitCode::TimedOut, "no frame arrived within " + toText(*options.timeout));
    }
}

CLI::App* addCommand(CLI::App& program, MonitorOptions& options)
{
    CLI::App* const command =
        program.add_subcommand("monitor", "Show streams live: frames, ages, gaps, levels");
    command->add_option("NAME", options.names, "Names of streams")
        ->type_name("")
        ->required()
        ->check(checkStreamName);
    command->add_flag("--json", options.json, "Print a JSON object for each stream and second");
    command
        ->add_option(
            "--metrics", options.metrics,
            "Write metrics to this file every second, as OpenMetrics text")
        ->type_name("FILE")
        ->check(CLI::Validator(
            [](const std::string& path)
            { return path == "-" ? "--metrics needs a file; - is not one" : ""; },
            ""));
    addDurationOption(*command, "-d,--duration", options.duration, "Exit after this time");
    addTimeoutOption(
        *command, options.timeout, "Exit with code 3 if no frame arrives within this time");
    addSenderUserOption(*command, options.senderUser);
    addRealTimeOption(*command, options.realTime);
    return command;
}

ExitCode runMonitor(const MonitorOptions& options, StopSignal& stop)
{
    // On a screen the picture itself shows what happens.
    const bool onScreen = !options.json && isLiveTerminal(STDOUT_FILENO);
    Meters meters;
    std::set<std::string> names;
    for (const std::string& name : options.names)
    {
        if (!names.insert(name).second)
            continue;
        meters.push_back(std::make_unique<StreamMeter>(
            kit::ConsumerOptions{
                .name = name, .realTime = options.realTime, .senderUser = options.senderUser},
            [onScreen](const std::string& line)
            {
                if (!onScreen)
                    printNotice(line);
            }));
        meters.back()->start();
    }
    watch(options, meters, onScreen, stop);
    for (const auto& meter : meters)
        meter->stop();
    return ExitCode::Done;
}

} // unnamed namespace

Subcommand makeMonitorCommand()
{
    return makeSubcommand(addCommand, runMonitor);
}

} // namespace vlx::tool
