#include <stdexcept>
#include <string_view>
#include <utility>

#include <CLI/CLI.hpp>

#include "SendCommand.hpp"
#include "common/Numbers.hpp"

namespace vlx::tool
{

namespace
{

constexpr std::size_t MaxReceivers = 100'000;
constexpr double MaxToneHz = 1e9;

constexpr const char* LocalAddress = "127.0.0.1";

double readFrequency(const std::string& text)
{
    std::string_view rest = text;
    const auto frequency = takeDecimal(rest);
    if (!frequency || !rest.empty() || *frequency > MaxToneHz)
        throw std::invalid_argument(quote(text) + " is no frequency in Hz, such as 440");
    return *frequency;
}

void addInputOptions(CLI::App& command, SendOptions& options)
{
    command
        .add_option(
            "INPUT", options.inputs,
            "Audio files of any kind that libsndfile reads, sent one behind the other; - for WAV, "
            "or "
            "raw samples with -f, -r or -c, from standard input")
        ->type_name("FILE");
    command.add_flag(
        "--raw", options.input.raw, "Take the input as raw samples, whatever it looks like");
    addFormatOptions(command, options.input.format, "raw input, tone or silence");
    addTextOption(
        command, "--tone", "HZ",
        [&options](const std::string& text) { options.toneHz = readFrequency(text); },
        "Send a sine of this frequency instead of an input");
    command.add_flag("--silence", options.silence, "Send silence instead of an input");
    command.add_flag("--loop", options.loop, "Start again at the end of the input");
    addDurationOption(command, "-d,--duration", options.duration, "Send this much audio at most");
}

void addStreamOptions(CLI::App& command, SendOptions& options)
{
    command
        .add_option(
            "--alternative", options.alternativeName,
            "Name to take if another sender has the first one")
        ->type_name("NAME")
        ->check(CLI::Validator(checkStreamName, ""));
    addDurationOption(command, "--frame", options.frame, "Length of a frame [10ms]");
    addDurationOption(
        command, "--latency", options.latency,
        "Add this to every timestamp: when receivers are to play a frame");
    addChoiceOption(
        command, "--protocol", options.protocol,
        {{"pubsub", NanomsgProtocol::PubSub}, {"pipeline", NanomsgProtocol::Pipeline}},
        "Any number of receivers, or one for which sending waits [pubsub]");
    addChoiceOption(
        command, "--socket-mode", options.socketMode,
        {{"owner", kit::SocketMode::Owner},
         {"group", kit::SocketMode::Group},
         {"all", kit::SocketMode::All}},
        "Whose receivers may join [owner]");
    addRealTimeOption(command, options.realTime);
}

void addClockOptions(CLI::App& command, SendOptions& options)
{
    addChoiceOption(
        command, "--clock", options.clock,
        {{"sysclock", ClockChoice::System}, {"net", ClockChoice::Served}},
        "Stamp frames by the machine's clock, or by one that is served over the network, too "
        "[sysclock]");
    command
        .add_option(
            "--clock-address", options.clockAddress,
            "Where the network clock is served [127.0.0.1]; without --clock, where it is followed")
        ->type_name("ADDRESS");
    addPortOption(
        command, "--clock-port", options.clockPort,
        "UDP port of the network clock [any that is free]");
    command.add_flag(
        "--external-clock", options.externalClock,
        "Follow a network clock that somebody else serves");
}

/// Makes one choice of what the clock options say together.
void settleClock(const CLI::App& command, SendOptions& options)
{
    const bool hasAddress = command.count("--clock-address") > 0;
    const bool hasPort = command.count("--clock-port") > 0;
    if (!options.clock)
        options.clock = hasAddress || hasPort || options.externalClock ? ClockChoice::External
                                                                       : ClockChoice::System;
    if (*options.clock == ClockChoice::Served && options.externalClock)
        options.clock = ClockChoice::External;

    if (*options.clock == ClockChoice::System && (hasAddress || hasPort || options.externalClock))
        throw CLI::ValidationError(
            "--clock", "the system's clock has no address or port; --clock net has");
    if (*options.clock == ClockChoice::External && !(hasAddress && hasPort))
        throw CLI::ValidationError(
            "--external-clock", "a clock that is followed needs --clock-address and --clock-port");
    if (*options.clock == ClockChoice::Served && !hasAddress)
        options.clockAddress = LocalAddress;
}

} // unnamed namespace

CLI::App* addSendCommand(CLI::App& program, SendOptions& options)
{
    CLI::App* const command = program.add_subcommand(
        "send", "Send audio files, raw samples, a tone or silence as a stream");
    addSocketOption(*command, options.name);
    addInputOptions(*command, options);
    addStreamOptions(*command, options);
    addClockOptions(*command, options);
    addNumberOption(
        *command, "--wait-receivers", options.waitReceivers, {0, MaxReceivers},
        "Send the first frame when this many receivers have joined [0]");
    addTimeoutOption(
        *command, options.timeout,
        "Give up with exit code 3 if input, network clock or receivers are not there by then");
    addReportOption(*command, options.report, "Write what was sent");
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

} // namespace vlx::tool
