#include "SendOptions.hpp"

#include <cmath>

#include <CLI/CLI.hpp>

namespace vlx::tool
{

namespace
{

constexpr std::size_t MaxReceivers = 100'000;

// Comparisons with it are all false, so that no range keeps it out.
std::string checkIsNumber(const std::string& text)
{
    return std::isnan(std::stod(text)) ? "not a number: " + text : std::string();
}

void addInputOptions(CLI::App& command, SendOptions& options)
{
    command
        .add_option(
            "INPUT", options.input,
            "Audio file of any kind that libsndfile reads; - for raw samples from standard input")
        ->type_name("");
    command.add_flag("--raw", options.raw, "Take a file as raw samples, whatever its extension");
    addFormatOptions(command, options.format, "raw input or tone");
    command
        .add_option("--tone", options.toneHz, "Send a sine of this frequency instead of an input")
        ->type_name("HZ")
        ->check(CLI::Range(0.0, 1e9).description(""))
        ->check(checkIsNumber);
    command.add_flag("--loop", options.loop, "Start again at the end of the input");
    addDurationOption(command, "-d,--duration", options.duration, "Send this much audio at most");
}

void addStreamOptions(CLI::App& command, SendOptions& options)
{
    addDurationOption(command, "--frame", options.frame, "Length of a frame [10ms]");
    addChoiceOption<NanomsgProtocol>(
        command, "--protocol", options.protocol,
        {{"pubsub", NanomsgProtocol::PubSub}, {"pipeline", NanomsgProtocol::Pipeline}},
        "Any number of receivers, or one for which sending waits [pubsub]");
    addChoiceOption<kit::SocketMode>(
        command, "--socket-mode", options.socketMode,
        {{"owner", kit::SocketMode::Owner},
         {"group", kit::SocketMode::Group},
         {"all", kit::SocketMode::All}},
        "Whose receivers may join [all]");
    command
        .add_option(
            "--clock-address", options.clockAddress,
            "Stamp frames by the GStreamer network clock at this address")
        ->type_name("ADDRESS");
    addNumberOption<std::uint16_t>(
        command, "--clock-port", options.clockPort, {1, 65535}, "UDP port of the network clock");
    command.get_option("--clock-address")->needs("--clock-port");
    command.get_option("--clock-port")->needs("--clock-address");
}

} // unnamed namespace

CLI::App* addSendCommand(CLI::App& program, SendOptions& options)
{
    CLI::App* const command =
        program.add_subcommand("send", "Send an audio file, raw samples or a tone as a stream");
    addSocketOption(*command, options.name);
    addInputOptions(*command, options);
    addStreamOptions(*command, options);
    addNumberOption<std::size_t>(
        *command, "--wait-receivers", options.waitReceivers, {0, MaxReceivers},
        "Send the first frame when this many receivers have joined [0]");
    addTimeoutOption(
        *command, options.timeout,
        "Give up with exit code 3 if receivers or network clock are not there by then");
    addReportOption(*command, options.report, "Write what was sent");
    addCommonOptions(*command, options.common);
    command->callback(
        [command, &options]
        {
            options.formatGiven = command->count("--format") + command->count("--rate") +
                                      command->count("--channels") >
                                  0;
        });
    return command;
}

} // namespace vlx::tool
