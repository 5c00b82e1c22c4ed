#include "SendCommand.hpp"

#include <chrono>
#include <string>

#include <vlx/VlxPayload.hpp>
#include <vlxkit/Producer.hpp>

#include "Commands.hpp"
#include "FramePump.hpp"
#include "Playlist.hpp"
#include "SendReport.hpp"
#include "StreamClock.hpp"
#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/StopSignal.hpp"
#include "common/Text.hpp"

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

SendReport makeReport(const SendOptions& options, const Playlist& input, const StreamClock& clock)
{
    SendReport report;
    report.path = options.report;
    report.name = options.name;
    report.format = input.getFormat();
    for (const std::string& path : options.inputs)
        report.input += (report.input.empty() ? "" : " ") + path;
    report.clock = toString(clock.getProtocol());
    return report;
}

/// @return whether it is open; otherwise a stop was asked for
bool openProducer(
    kit::Producer& producer,
    PcmPayloader& payloader,
    const SendOptions& options,
    const StopSignal& stop)
{
    const kit::Status opened = producer.open(payloader);
    if (stop.isRequested())
        return false;
    if (!opened)
        throw CommandFailure(ExitCode::Failed, opened.getText());
    if (producer.getName() != options.name)
        printNotice(
            "the name " + quote(options.name) + " is taken: sending as " +
            quote(producer.getName()));
    return true;
}

/// Sends the whole input over a stream that it opens and closes.
void sendInput(
    Playlist& input,
    const SendOptions& options,
    StreamClock& clock,
    StopSignal& stop,
    SendReport& report)
{
    const kit::StreamFormat& format = input.getFormat();
    PcmPayloader payloader;
    payloader.setNewFormat(format.rate, format.channels, format.sampleFormat);
    kit::Producer producer(
        {.name = options.name,
         .alternativeName = options.alternativeName,
         .protocol = options.protocol,
         .clock = clock.getProtocol(),
         .clockAddress = clock.getAddress(),
         .clockPort = clock.getPort(),
         .socketMode = options.socketMode,
         .realTime = options.realTime,
         .onNotice = printNotice});
    // Frees a pipeline send that waits for its receiver.
    const StopListener freeSends(stop, [&producer] { producer.stop(); });
    if (!openProducer(producer, payloader, options, stop))
        return;
    report.name = producer.getName();

    const kit::RealTimeScope realTime(options.realTime);
    FramePump pump(producer, payloader, input, clock, stop, report, options);
    pump.run();
    finishProgress(report.frames > 0 ? pump.describeProgress() : std::string());
    producer.close();
}

ExitCode runSend(const SendOptions& options, StopSignal& stop)
{
    Playlist input = openPlaylist(options, stop);
    if (!input.isOpen())
        return ExitCode::Done;
    StreamClock clock(
        options.clock.value_or(ClockChoice::System), options.clockAddress, options.clockPort);
    if (!clock.waitUntilReady(options.timeout, stop))
        return ExitCode::Done;

    SendReport report = makeReport(options, input, clock);
    report.write();
    sendInput(input, options, clock, stop, report);
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
