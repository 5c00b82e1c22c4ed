#include "ReceiveOptions.hpp"

#include <CLI/CLI.hpp>

namespace vlx::tool
{

CLI::App* addReceiveCommand(CLI::App& program, ReceiveOptions& options)
{
    CLI::App* const command =
        program.add_subcommand("receive", "Record a stream to an audio file, or as raw samples");
    addSocketOption(*command, options.name);
    command
        ->add_option(
            "OUTPUT", options.output,
            "Audio file, its kind by extension (wav, rf64, w64, caf, aiff, au, flac, ogg, opus, "
            "mp3, "
            "raw) and otherwise WAV; - for raw samples to standard output")
        ->required()
        ->type_name("");
    command->add_flag("--raw", options.raw, "Write raw samples, whatever the extension");
    command->add_flag(
        "--oneshot", options.oneshot, "End when the sender that delivered frames has gone");
    addDurationOption(*command, "-d,--duration", options.duration, "Record this much audio");
    addTimeoutOption(*command, options.timeout, "Give up with exit code 3 without a frame by then");
    addDurationOption(
        *command, "--stall", options.stall, "Join again after this time without a frame [2s]");
    addReportOption(*command, options.report, "Write what was received");
    addCommonOptions(*command, options.common);
    return command;
}

} // namespace vlx::tool
