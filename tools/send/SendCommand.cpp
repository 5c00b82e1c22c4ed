#include <chrono>
#include <string_view>

#include <CLI/CLI.hpp>

#include "Commands.hpp"
#include "FramePump.hpp"
#include "Playlist.hpp"
#include "SendOptions.hpp"
#include "SendReport.hpp"
#include "StreamClock.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

constexpr std::size_t MaxReceivers = 100'000;
constexpr double MaxToneHz = 1e9;

constexpr const char* LocalAddress = "127.0.0.1";

std::string readFrequency(const std::string& text, std::optional<double>& target)
{
    std::string_view rest = text;
    const auto frequency = takeDecimal(rest);
    if (!frequency || !rest.empty() || *frequency > MaxToneHz)
        return "invalid frequency " + quote(text) + ": expected Hz, for example 440";
    target = frequency;
    return {};
}

void addInputOptions(CLI::App& command, SendOptions& options)
{
    command
        .add_option(
            "INPUT", options.inputs,
            "Audio files of any kind that libsndfile reads, sent one after the other; - is "
            "standard input: WAV, or raw samples with --raw, -f, -r or -c")
        ->type_name("FILE");
    command.add_flag(
        "--raw", options.input.raw, "Treat the input as raw samples, whatever it contains");
    addFormatOptions(command, options.input.format, "raw input, tone or silence");
    addTextOption(
        command, "--tone", "HZ",
        [&options](const std::string& text) { return readFrequency(text, options.input.toneHz); },
        "Send a sine of this frequency instead of an input");
    command
        .add_flag_callback(
            "--silence", [&options] { options.input.toneHz = 0; },
            "Send silence instead of an input")
        ->excludes("--tone");
    command.add_flag("--loop", options.loop, "Start again at the end of the input");
    addDurationOption(command, "-d,--duration", options.duration, "Send this much audio at most");
}

void addStreamOptions(CLI::App& command, SendOptions& options)
{
    addDurationOption(command, "--frame", options.frame, "Length of a frame [10ms]");
    addDurationOption(
        command, "--latency", options.latency,
        "Add this to every timestamp, so that receivers play later [0s]");
    addChoiceOption(
        command, "--protocol", options.protocol,
        {{"pubsub", NanomsgProtocol::PubSub}, {"pipeline", NanomsgProtocol::Pipeline}},
        "How frames are delivered: to any number of receivers, or to one that the sender waits for "
        "[pubsub]");
    addChoiceOption(
        command, "--socket-mode", options.socketMode,
        {{"owner", kit::SocketMode::Owner},
         {"group", kit::SocketMode::Group},
         {"all", kit::SocketMode::All}},
        "Users whose receivers may join [owner]");
    addChoiceOption(
        command, "--shared", options.carriage,
        {{"auto", kit::Carriage::Automatic},
         {"always", kit::Carriage::Shared},
         {"never", kit::Carriage::Inline}},
        "Share frames in memory with receivers of the kit: if they are large, always or never "
        "[never]");
    addRealTimeOption(command, options.realTime);
}

void addClockOptions(CLI::App& command, SendOptions& options)
{
    addChoiceOption(
        command, "--clock", options.clock,
        {{"sysclock", ClockChoice::System}, {"net", ClockChoice::Served}},
        "Clock of the timestamps: the machine's own, or the same served over the network "
        "[sysclock]");
    command
        .add_option(
            "--clock-address", options.clockAddress,
            "Address of the network clock: to serve it there [127.0.0.1] or, without --clock, to "
            "follow it")
        ->type_name("ADDRESS");
    addPortOption(
        command, "--clock-port", options.clockPort,
        "UDP port of the network clock [any free port]");
}

/// Derives the choice of the clock from all clock options together.
void settleClock(const CLI::App& command, SendOptions& options)
{
    const bool hasAddress = command.count("--clock-address") > 0;
    const bool hasPort = command.count("--clock-port") > 0;
    if (command.count("--clock") == 0 && (hasAddress || hasPort))
        options.clock = ClockChoice::External;

    if (options.clock == ClockChoice::System && (hasAddress || hasPort))
        throw CLI::ValidationError(
            "--clock", "the system clock has no address or port; use --clock net");
    if (options.clock == ClockChoice::External && !(hasAddress && hasPort))
        throw CLI::ValidationError(
            "--clock", "to follow a network clock, give --clock-address and --clock-port");
    if (options.clock == ClockChoice::Served && !hasAddress)
        options.clockAddress = LocalAddress;
}

CLI::App* addCommand(CLI::App& program, SendOptions& options)
{
    CLI::App* const command = program.add_subcommand(
        "send", "Send audio files, raw samples, a tone or silence as a stream");
    addSocketOption(*command, options.name);
    addInputOptions(*command, options);
    addStreamOptions(*command, options);
    addClockOptions(*command, options);
    addNumberOption(
        *command, "--wait-receivers", options.waitReceivers, {0, MaxReceivers},
        "Wait for this many receivers before the first frame [0]");
    addTimeoutOption(
        *command, options.timeout,
        "Exit with code 3 if input, network clock or receivers are not ready within this time");
    addReportOption(*command, options.report, "Write a JSON report of what was sent");
    command->callback(
        [command, &options]
        {
            options.input.formatGiven = command->count("--format") + command->count("--rate") +
                                            command->count("--channels") >
                                        0;
            settleClock(*command, options);
        });
    return command;
}

Playlist openPlaylist(const SendOptions& options, const StopSignal& stop)
{
    if (options.inputs.empty() != options.input.toneHz.has_value())
        throw CommandFailure(
            ExitCode::Usage, "give either an INPUT, --tone or --silence; see --help");
    Deadline deadline;
    if (options.timeout)
        deadline = std::chrono::steady_clock::now() + *options.timeout;
    const auto paths = options.input.toneHz ? std::vector<std::string>{""} : options.inputs;
    return {paths, options.input, options.loop, stop, deadline};
}

ExitCode runSend(const SendOptions& options, StopSignal& stop)
{
    Playlist input = openPlaylist(options, stop);
    if (!input.isOpen())
        return ExitCode::Done;
    StreamClock clock(options.clock, options.clockAddress, options.clockPort);
    if (!clock.waitUntilReady(options.timeout, stop))
        return ExitCode::Done;

    SendReport report(options, input.getFormat(), clock.getProtocol());
    report.write();
    FramePump(options, input, clock, stop, report).run();
    const std::string problem = input.getProblem();
    report.finished = !stop.isRequested() && problem.empty();
    report.write(true);
    if (!stop.isRequested() && !problem.empty())
        throw CommandFailure(ExitCode::Failed, problem);
    return ExitCode::Done;
}

} // unnamed namespace

Subcommand makeSendCommand()
{
    return makeSubcommand(addCommand, runSend);
}

} // namespace vlx::tool
