#include <CLI/CLI.hpp>

#include "ReceiveCommand.hpp"
#include "audio/AudioOutput.hpp"

namespace vlx::tool
{

namespace
{

void addOutputOptions(CLI::App& command, ReceiveOptions& options)
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

} // unnamed namespace

CLI::App* addReceiveCommand(CLI::App& program, ReceiveOptions& options)
{
    CLI::App* const command = program.add_subcommand(
        "receive", "Record a stream to an audio file or as raw samples, or play it");
    addSocketOption(*command, options.name);
    addOutputOptions(*command, options);
    command->add_flag(
        "--oneshot", options.oneshot, "Exit when a sender that delivered frames has gone");
    addDurationOption(
        *command, "-d,--duration", options.duration, "Record or play this much audio");
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
            if (options.output.empty() && options.play.empty())
                throw CLI::ValidationError("OUTPUT or --play is required");
            const char* const needsFiles = options.split         ? "--split"
                                           : options.maxDuration ? "--max-duration"
                                           : options.namePattern ? "--name-pattern"
                                                                 : nullptr;
            if (options.output == "-" && needsFiles != nullptr)
                throw CLI::ValidationError(
                    std::string(needsFiles) + " needs a file name; - is standard output");
            if (options.output == "-" && options.report == "-")
                throw CLI::ValidationError(
                    "standard output takes either the samples or the report");
        });
    return command;
}

} // namespace vlx::tool
