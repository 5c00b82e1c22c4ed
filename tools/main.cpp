#include <cstdio>
#include <exception>
#include <functional>

#include <CLI/CLI.hpp>

#include "common/ExitCodes.hpp"
#include "common/LogSetup.hpp"
#include "common/Messages.hpp"
#include "common/SignalThread.hpp"
#include "common/StopSignal.hpp"
#include "receive/ReceiveCommand.hpp"
#include "receive/ReceiveOptions.hpp"
#include "send/SendCommand.hpp"
#include "send/SendOptions.hpp"

namespace
{

using namespace vlx::tool;

constexpr const char* ExitCodeHelp = "Exit codes: 0 done, 1 failed, 2 wrong usage, 3 time-out or "
                                     "no sender, 128+n stopped by signal n";

/// Prints help and version as asked for, and wrong usage in one line.
int explainParseEnd(const CLI::App& program, const CLI::ParseError& error)
{
    if (error.get_exit_code() == toInt(ExitCode::Done))
        return program.exit(error);
    for (const CLI::App* const command : program.get_subcommands())
        configureMessages("vlx " + command->get_name(), false, ColorUse::Auto);
    printError(std::string(error.what()) + "; see --help");
    return toInt(ExitCode::Usage);
}

int runCommand(
    const std::string& name,
    const CommonOptions& options,
    const std::function<int(StopSignal&)>& command)
{
    configureMessages("vlx " + name, options.quiet, options.color);
    configureLogging(options.quiet ? 0 : options.verbosity);
    try
    {
        StopSignal stop;
        const SignalThread signalThread(stop);
        return command(stop);
    }
    catch (const CommandFailure& failure)
    {
        finishProgress();
        printError(failure.what());
        return toInt(failure.getCode());
    }
    catch (const std::exception& error)
    {
        finishProgress();
        printError(error.what());
        return toInt(ExitCode::Failed);
    }
}

} // unnamed namespace

int main(int argc, char** argv)
{
    blockStopSignals();

    CLI::App program("Timestamped media frames from one process to many on one machine", "vlx");
    program.set_version_flag("--version", "vlx " VLX_VERSION);
    program.footer(ExitCodeHelp);
    program.require_subcommand(1);
    SendOptions sendOptions;
    const CLI::App* const send = addSendCommand(program, sendOptions);
    ReceiveOptions receiveOptions;
    const CLI::App* const receive = addReceiveCommand(program, receiveOptions);
    try
    {
        program.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        return explainParseEnd(program, error);
    }

    if (send->parsed())
        return runCommand(
            "send", sendOptions.common,
            [&](StopSignal& stop) { return runSend(sendOptions, stop); });
    if (receive->parsed())
        return runCommand(
            "receive", receiveOptions.common,
            [&](StopSignal& stop) { return runReceive(receiveOptions, stop); });
    return toInt(ExitCode::Usage);
}
