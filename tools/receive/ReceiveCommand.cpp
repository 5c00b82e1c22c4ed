#include <chrono>
#include <utility>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>

#include "Commands.hpp"
#include "Recorder.hpp"
#include "common/Duration.hpp"
#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/ReportFile.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

using SteadyClock = std::chrono::steady_clock;
using miscUtils::getMonotonicSysclockTime;

constexpr auto DefaultStall = std::chrono::seconds(2);
constexpr auto WatchInterval = std::chrono::milliseconds(50);
// Several seconds of what a disk may have to catch up with, in frames of a millisecond or more.
constexpr kit::QueueLimits QueueLimits = {
    .time = std::chrono::nanoseconds(0),
    .bytes = 64 << 20,
    .frames = 4096};

struct ReceiveOptions
{
    std::string name;
    RecordingOptions recording;
    OptionalDuration timeout;
    OptionalDuration stall;
    kit::RealTime realTime;
    std::optional<uid_t> senderUser;
    std::string report;
};

/// A recording from joining to the last line: recorder and consumer, and what ends them.
class ReceiveControl
{
public:
    ReceiveControl(const ReceiveOptions& options, const StopSignal& stop);

    /// Receives until something ends it, and finishes the recording whatever that was.
    ///
    /// @return the exit code
    /// @throws CommandFailure if the report cannot be written
    int run();

private:
    void receive();
    void leave();
    void handle(const kit::ConsumerItem& item);
    void handleEvent(const kit::ConsumerEvent& event);
    bool watch();
    void writeReport(bool isFinished) const;

    const ReceiveOptions& m_options;
    const StopSignal& m_stop;
    const Deadline m_deadline; // of the first frame
    std::string m_lastProblem; // why nothing comes
    bool m_isStalled = false;
    Recorder m_recorder;
    kit::Consumer m_consumer;
};

ReceiveControl::ReceiveControl(const ReceiveOptions& options, const StopSignal& stop)
    : m_options(options),
      m_stop(stop),
      m_deadline(options.timeout ? Deadline(SteadyClock::now() + *options.timeout) : Deadline()),
      m_recorder(options.recording, {stop, m_deadline}, getMonotonicSysclockTime()),
      m_consumer(
          {.name = options.name,
           .stallTimeout = options.stall.value_or(DefaultStall),
           .realTime = options.realTime,
           .senderUser = options.senderUser,
           .onNotice = printNotice,
           .queue = QueueLimits})
{
}

int ReceiveControl::run()
{
    if (m_stop.isRequested()) // while a FIFO had no reader
        return toInt(ExitCode::Done);
    if (isReplaced(m_options.report))
        writeReport(false);

    int code = toInt(ExitCode::Done);
    const auto attempt = [&](const auto& step)
    {
        try
        {
            step();
        }
        catch (const CommandFailure& failure)
        {
            // What fails once fails at the end, too.
            if (std::exchange(code, toInt(failure.getCode())) != toInt(ExitCode::Failed))
                printError(failure.what());
        }
    };
    attempt([this] { receive(); });
    attempt([this] { m_recorder.finish(); });
    if (m_recorder.getNumFrames() > 0)
        printNotice(m_recorder.summarize()); // in the place of the progress
    else
        finishProgress();
    writeReport(true);
    return code;
}

void ReceiveControl::receive()
{
    if (const kit::Status status = m_consumer.start(); !status)
        throw CommandFailure(ExitCode::Failed, status.getText());
    const bool isPlaying = !m_options.recording.play.empty();
    const kit::RealTimeScope realTime(isPlaying ? m_options.realTime : kit::RealTime());
    auto nextWatch = SteadyClock::now();
    while (!m_recorder.isDone() && !m_stop.isRequested())
    {
        if (const auto item = m_consumer.read(isPlaying ? WorkInterval : WatchInterval))
            handle(*item);
        m_recorder.work();
        if (SteadyClock::now() < nextWatch)
            continue;
        nextWatch = SteadyClock::now() + WatchInterval;
        if (watch())
            return;
    }
    leave();
}

/// Records what had come before the stop.
void ReceiveControl::leave()
{
    const TimeValue end = getMonotonicSysclockTime();
    m_consumer.stop();
    while (const auto item = m_consumer.read(std::chrono::nanoseconds(0)))
    {
        const auto* const event = std::get_if<kit::ConsumerEvent>(&*item);
        if (event == nullptr || event->time < end) // leaving is no loss
            handle(*item);
    }
}

void ReceiveControl::handle(const kit::ConsumerItem& item)
{
    if (const auto* const frame = std::get_if<kit::ReceivedFrame>(&item))
        m_recorder.add(*frame);
    else if (const auto* const format = std::get_if<kit::StreamFormat>(&item))
        m_recorder.add(*format);
    else if (const auto* const event = std::get_if<kit::ConsumerEvent>(&item))
        handleEvent(*event);
}

void ReceiveControl::handleEvent(const kit::ConsumerEvent& event)
{
    using Kind = kit::ConsumerEvent::Kind;
    switch (event.kind)
    {
    case Kind::Joined:
    case Kind::Lost:
    case Kind::Stalled:
        m_isStalled = event.kind == Kind::Stalled;
        m_recorder.add(event);
        break;
    case Kind::CannotPlay:
        throw CommandFailure(ExitCode::Failed, event.text);
    case Kind::NotPermitted:
    case Kind::NotASender:
    case Kind::Failed:
        // Reported each time that something else has happened between.
        if (std::exchange(m_lastProblem, event.text) != event.text)
            printNotice(event.text);
        break;
    }
}

/// @return whether the sender has gone for good
/// @throws CommandFailure if no frame has come in time
bool ReceiveControl::watch()
{
    printProgress(m_recorder.describeProgress());
    // A consumer that reconnects to a hung sender has not joined it, so it reports no loss if that
    // sender is killed.
    if (m_recorder.getNumFrames() > 0)
        return m_options.recording.oneshot && m_isStalled && !kit::isNameTaken(m_options.name);
    if (!m_deadline || SteadyClock::now() < *m_deadline)
        return false;
    const bool isReachable = !m_lastProblem.empty() || kit::isNameTaken(m_options.name);
    throw CommandFailure(
        ExitCode::TimedOut, (isReachable ? "no frame from \"" : "no sender \"") + m_options.name +
                                "\" within " + toText(*m_options.timeout) +
                                (m_lastProblem.empty() ? "" : " (" + m_lastProblem + ")"));
}

void ReceiveControl::writeReport(bool isFinished) const
{
    if (m_options.report.empty())
        return;
    nlohmann::ordered_json report = {
        {"stream", m_options.name},
        {"output", m_options.recording.output},
        {"finished", isFinished}};
    if (isFinished)
    {
        report["stalls"] = m_consumer.getStatistics().stalls;
        m_recorder.addToReport(report);
    }
    writeJson(m_options.report, report);
}

void addOutputOptions(CLI::App& command, RecordingOptions& options)
{
    CLI::Option* const output =
        command
            .add_option(
                "OUTPUT", options.output,
                "Audio file, its kind given by the extension; - writes raw samples to standard "
                "output")
            ->type_name("");
    CLI::Option* const type = command
                                  .add_option(
                                      "-t,--type", options.type,
                                      "Kind of output, whatever its name: " + listOutputTypes())
                                  ->type_name("TYPE");
    CLI::Option* const raw = command.add_flag_callback(
        "--raw", [&options] { options.type = "raw"; }, "Write raw samples, the same as -t raw");
    CLI::Option* const split = command.add_flag(
        "--split", options.split,
        "Begin a new numbered file for each connection and each format, as in out-001.wav");
    CLI::Option* const maxDuration = addDurationOption(
        command, "--max-duration", options.maxDuration,
        "Begin a new numbered file after this much audio");
    CLI::Option* const namePattern = command.add_flag(
        "--name-pattern", options.namePattern,
        "Take OUTPUT as a pattern like date(1), filled in with the local time of the first frame");
    CLI::Option* const overwrite = command.add_flag(
        "--overwrite", options.overwrite, "Replace existing files instead of refusing to");
    CLI::Option* const noFill = command.add_flag(
        "--no-fill", options.noFill, "Leave gaps out instead of filling them with silence");
    CLI::Option* const play =
        command
            .add_option(
                "--play", options.play,
                "Play through this ALSA device [default], each sample on time")
            ->expected(0, 1)
            ->default_str("default")
            ->type_name("DEVICE");
    addDurationOption(
        command, "--latency", options.latency,
        "Play each sample this long after its timestamp [100ms]")
        ->needs(play);
    for (CLI::Option* const other :
         {output, type, raw, split, maxDuration, namePattern, overwrite, noFill})
        play->excludes(other);
}

CLI::App* addReceiveCommand(CLI::App& program, ReceiveOptions& options)
{
    CLI::App* const command = program.add_subcommand(
        "receive", "Record a stream to an audio file or as raw samples, or play it");
    addSocketOption(*command, options.name);
    addOutputOptions(*command, options.recording);
    command->add_flag(
        "--oneshot", options.recording.oneshot,
        "Exit when a sender that delivered frames has gone");
    addDurationOption(
        *command, "-d,--duration", options.recording.duration, "Record or play this much audio");
    addTimeoutOption(
        *command, options.timeout, "Exit with code 3 if no frame arrives within this time");
    addDurationOption(
        *command, "--stall", options.stall, "Reconnect after this time without a frame [2s]");
    addSenderUserOption(*command, options.senderUser);
    addRealTimeOption(*command, options.realTime);
    addReportOption(*command, options.report, "Write a JSON report of what was received");
    command->callback(
        [&options]
        {
            const RecordingOptions& recording = options.recording;
            if (recording.output.empty() && recording.play.empty())
                throw CLI::ValidationError("OUTPUT or --play is required");
            const char* const needsFiles = recording.split         ? "--split"
                                           : recording.maxDuration ? "--max-duration"
                                           : recording.namePattern ? "--name-pattern"
                                                                   : nullptr;
            if (recording.output == "-" && needsFiles != nullptr)
                throw CLI::ValidationError(
                    std::string(needsFiles) + " needs a file name; - is standard output");
            if (recording.output == "-" && options.report == "-")
                throw CLI::ValidationError(
                    "standard output takes either the samples or the report");
        });
    return command;
}

int runReceive(const ReceiveOptions& options, StopSignal& stop)
{
    return ReceiveControl(options, stop).run();
}

} // unnamed namespace

Subcommand makeReceiveCommand()
{
    return makeSubcommand(addReceiveCommand, runReceive);
}

} // namespace vlx::tool
