#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <vlxkit/Discovery.hpp>

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

// A stream that has gone stays on the display for this time.
constexpr auto GoneTime = std::chrono::seconds(2);

// Streams that are joined without being named. Each takes three threads and about ten descriptors.
constexpr std::size_t MaxJoined = 64;

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
        if (lines.empty())
            lines.emplace_back("no sender on this machine");
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

/// The streams that are shown: the named ones, or all of this machine as they come and go.
class Streams
{
public:
    Streams(const MonitorOptions& options, bool onScreen) : m_options(options), m_onScreen(onScreen)
    {
        for (const std::string& name : options.names)
        {
            Stream& stream = findStream(name);
            if (!stream.meter)
                stream.meter = makeMeter(name);
        }
    }

    /// Adds and removes streams, unless they were named.
    void update()
    {
        if (!m_options.names.empty())
            return;
        for (kit::SenderChange& change : m_watch.look())
        {
            if (!m_options.senderUser || change.sender.user == m_options.senderUser)
                follow(std::move(change));
        }
        std::erase_if(
            m_streams, [now = SteadyClock::now()](const auto& stream)
            { return stream.goneAt && now - *stream.goneAt >= GoneTime; });
    }

    Snapshots takeSnapshots()
    {
        Snapshots snapshots;
        for (Stream& stream : m_streams)
        {
            StreamSnapshot& snapshot = snapshots.emplace_back();
            if (stream.meter)
            {
                snapshot = stream.meter->takeSnapshot();
            }
            else
            {
                snapshot.name = stream.name;
                snapshot.state = getObstacle(stream);
                snapshot.announced = stream.sender;
            }
            if (stream.goneAt)
                snapshot.state = "gone";
        }
        return snapshots;
    }

private:
    struct Stream
    {
        std::string name;
        std::unique_ptr<StreamMeter> meter = {}; // of a joined stream
        FoundSender sender = {};                 // unless it was named
        std::string problem = {};                // why it could not be joined
        std::optional<SteadyClock::time_point> goneAt = {};
    };

    std::unique_ptr<StreamMeter> makeMeter(const std::string& name) const
    {
        auto meter = std::make_unique<StreamMeter>(
            kit::ConsumerOptions{
                .name = name,
                .realTime = m_options.realTime,
                .senderUser = m_options.senderUser,
                .pubSubOnly = m_options.names.empty(),
                .anyCodec = true},
            [this](const std::string& line) { tell(line); });
        meter->start();
        return meter;
    }

    // On a screen the picture itself shows what happens.
    void tell(const std::string& line) const
    {
        if (!m_onScreen)
            printNotice(line);
    }

    static std::string getObstacle(const Stream& stream)
    {
        const auto& info = stream.sender.probe.initialInfo;
        if (!info)
            return "no answer";
        if (info->nanomsgProtocol == NanomsgProtocol::Pipeline)
            return "pipeline, not joined";
        return stream.problem.empty() ? "not joined" : stream.problem;
    }

    /// One sender that cannot be joined does not keep the others from the display.
    void join(Stream& stream) const
    {
        try
        {
            stream.meter = makeMeter(stream.name);
        }
        catch (const CommandFailure& failure)
        {
            stream.problem = failure.what();
        }
    }

    Stream& findStream(const std::string& name)
    {
        const auto found = std::find_if(
            m_streams.begin(), m_streams.end(),
            [&name](const Stream& stream) { return stream.name == name; });
        return found != m_streams.end() ? *found : m_streams.emplace_back(Stream{.name = name});
    }

    void follow(kit::SenderChange change)
    {
        using Kind = kit::SenderChange::Kind;
        Stream& stream = findStream(change.sender.name);
        stream.sender = {std::move(change.sender), std::move(change.probe)};
        const auto& [entry, probe] = stream.sender;
        if (change.kind == Kind::Gone)
        {
            stream.goneAt = SteadyClock::now();
            tell(entry.name + ": gone");
            return;
        }
        stream.goneAt.reset();
        const bool isPipeline =
            probe.initialInfo && probe.initialInfo->nanomsgProtocol == NanomsgProtocol::Pipeline;
        if (isPipeline)
            stream.meter.reset();
        else if (probe.initialInfo && !stream.meter && countJoined() < MaxJoined)
            join(stream);
        if (!stream.meter && change.kind == Kind::Came)
            tell(entry.name + ": " + getObstacle(stream));
    }

    std::size_t countJoined() const
    {
        return static_cast<std::size_t>(std::count_if(
            m_streams.begin(), m_streams.end(),
            [](const auto& stream) { return stream.meter != nullptr; }));
    }

    const MonitorOptions& m_options;
    const bool m_onScreen;
    kit::SenderWatch m_watch;
    std::vector<Stream> m_streams; // as they were named, or came
};

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

void watch(const MonitorOptions& options, Streams& streams, bool onScreen, StopSignal& stop)
{
    const auto begin = SteadyClock::now();
    const auto end = options.duration ? begin + *options.duration : SteadyClock::time_point::max();
    const std::chrono::nanoseconds interval = onScreen ? ScreenInterval : LineInterval;
    Screen screen(usesColor(STDOUT_FILENO));
    auto metricsDue = begin;
    for (auto due = begin + interval;; due = std::max(due + interval, SteadyClock::now()))
    {
        bool stopped = false;
        do
        {
            streams.update();
            stopped = stop.waitUntil(std::min({SteadyClock::now() + ScreenInterval, due, end}));
        } while (!stopped && SteadyClock::now() < std::min(due, end));
        const Snapshots snapshots = streams.takeSnapshots();
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
    command
        ->add_option("NAME", options.names, "Names of streams [all streams, as they come and go]")
        ->type_name("")
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
    const bool onScreen = !options.json && isLiveTerminal(STDOUT_FILENO);
    Streams streams(options, onScreen);
    watch(options, streams, onScreen, stop);
    return ExitCode::Done;
}

} // unnamed namespace

Subcommand makeMonitorCommand()
{
    return makeSubcommand(addCommand, runMonitor);
}

} // namespace vlx::tool
