#include <cstdio>
#include <cstdlib>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <vlxkit/Discovery.hpp>

#include "Commands.hpp"
#include "common/CommonOptions.hpp"
#include "common/ExitCodes.hpp"
#include "common/ReportFile.hpp"
#include "common/SenderReport.hpp"
#include "common/StopSignal.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

struct InfoOptions
{
    std::string name;
    bool json = false;
    OptionalDuration timeout;
};

std::string describeJoining(const kit::SenderProbe& probe)
{
    if (probe.mayJoin)
        return "this user may join";
    if (probe.socketFile.empty())
        return "no: the announced main channel is invalid";
    return "no: " + toPrintable(probe.socketFile) +
           (probe.socketFileMode == 0 ? ""
                                      : formatText(", mode %03o", probe.socketFileMode & 0777U)) +
           "; at the sender: --socket-mode group or all";
}

void printLine(const char* label, const std::string& value)
{
    std::printf("%-10s %s\n", label, value.c_str());
}

void printText(const InfoOptions& options, const kit::SenderProbe& probe)
{
    const InitialInfo& info = *probe.initialInfo;
    printLine("name", toPrintable(options.name));
    printLine("version", std::to_string(info.version));
    printLine("protocol", toString(info.nanomsgProtocol));
    printLine("clock", describeClock(probe));
    printLine("channel", toPrintable(info.nanomsgURI));
    printLine("sequence", probe.sequenceNr ? std::to_string(*probe.sequenceNr) : "none yet");
    printLine("format", describeFormat(probe));
    if (probe.ring)
        printLine(
            "memory", probe.ring->getPath() + ", " +
                          formatText(
                              "%u frames, %llu bytes", probe.ring->numSlots,
                              static_cast<unsigned long long>(probe.ring->getFileBytes())));
    printLine("joining", describeJoining(probe));
}

kit::SenderProbe probe(const InfoOptions& options)
{
    const auto timeout = options.timeout
                             ? std::chrono::ceil<std::chrono::milliseconds>(*options.timeout)
                             : AnswerTimeout;
    kit::SenderProbe probe = kit::probeSender(options.name, timeout);
    const std::string name = quote(options.name);
    if (!probe.reached)
        throw CommandFailure(ExitCode::TimedOut, "no sender " + name);
    if (probe.busy)
        throw CommandFailure(ExitCode::TimedOut, name + " is stopped or busy: its backlog is full");
    if (!probe.initialInfo)
        throw CommandFailure(
            ExitCode::TimedOut,
            name + (probe.closedEarly ? " is taken by a program that is not a Vellox sender"
                                      : " does not answer: it is stopped, or not a Vellox sender"));
    return probe;
}

CLI::App* addCommand(CLI::App& program, InfoOptions& options)
{
    CLI::App* const command = program.add_subcommand(
        "info", "Print what a sender announces, and whether this user may join");
    command->add_option("NAME", options.name, "The stream's name")
        ->type_name("")
        ->required()
        ->check(checkStreamName);
    command->add_flag("--json", options.json, "Print a JSON object");
    addTimeoutOption(
        *command, options.timeout,
        "Exit with code 3 if there is no answer within this time [500ms]");
    return command;
}

ExitCode runInfo(const InfoOptions& options, StopSignal& stop)
{
    // Nothing else interrupts the probe, and there is nothing to clean up.
    const std::stop_callback listener(
        stop.getToken(), [&stop] { std::_Exit(toExitCode(stop.getSignalNumber())); });
    const kit::SenderProbe answer = probe(options);
    if (options.json)
    {
        nlohmann::ordered_json json = {{"name", options.name}};
        json.update(toJson(answer));
        writeJson("-", json);
    }
    else
    {
        printText(options, answer);
    }
    return ExitCode::Done;
}

} // unnamed namespace

Subcommand makeInfoCommand()
{
    return makeSubcommand(addCommand, runInfo);
}

} // namespace vlx::tool
