#include <chrono>

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

Playlist openPlaylist(const SendOptions& options, const StopSignal& stop)
{
    if ((options.toneHz ? 1 : 0) + (options.silence ? 1 : 0) + (options.inputs.empty() ? 0 : 1) !=
        1)
        throw CommandFailure(
            ExitCode::Usage, "give either an INPUT, --tone or --silence; see --help");
    if (options.inputs.empty())
        return {makeToneInput(options.toneHz.value_or(0), options.input.format), stop};
    Deadline deadline;
    if (options.timeout)
        deadline = std::chrono::steady_clock::now() + *options.timeout;
    return {options.inputs, options.input, options.loop, stop, deadline};
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
    return makeSubcommand(addSendCommand, runSend);
}

} // namespace vlx::tool
