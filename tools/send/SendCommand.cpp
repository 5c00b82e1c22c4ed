#include "SendCommand.hpp"

#include <chrono>
#include <string>

#include <vlx/VlxPayload.hpp>
#include <vlxkit/Producer.hpp>

#include "FramePump.hpp"
#include "Playlist.hpp"
#include "SendOptions.hpp"
#include "SendReport.hpp"
#include "StreamClock.hpp"
#include "common/ExitCodes.hpp"
#include "common/LogSetup.hpp"
#include "common/Messages.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

constexpr auto DefaultFrame = std::chrono::milliseconds(10);

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

kit::ProducerOptions makeProducerOptions(const SendOptions& options, const StreamClock& clock)
{
    kit::ProducerOptions result;
    result.name = options.name;
    result.alternativeName = options.alternativeName;
    result.protocol = options.protocol;
    result.clock = clock.getProtocol();
    result.clockAddress = clock.getAddress();
    result.clockPort = clock.getPort();
    result.socketMode = options.socketMode;
    result.realTime = options.realTime;
    result.onNotice = printNotice;
    return result;
}

PumpSettings makePumpSettings(const SendOptions& options)
{
    PumpSettings settings;
    settings.frame = options.frame.value_or(DefaultFrame);
    settings.duration = options.duration;
    settings.latency = options.latency.value_or(std::chrono::nanoseconds::zero());
    settings.waitAlways = options.protocol == NanomsgProtocol::Pipeline;
    settings.waitReceivers = options.waitReceivers;
    settings.timeout = options.timeout;
    return settings;
}

SendReport makeReport(const SendOptions& options, const Playlist& input, const StreamClock& clock)
{
    SendReport report;
    report.name = options.name;
    for (const std::string& path : options.inputs)
        report.input += (report.input.empty() ? "" : " ") + path;
    report.format = input.getFormat();
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
    const bool opened = producer.open(payloader);
    if (stop.isRequested())
        return false;
    if (!opened)
        throw CommandFailure(ExitCode::Failed, producer.getProblem() + quoteLastLibraryError());
    if (producer.getName() != options.name)
        printNotice(
            "another sender has the name \"" + options.name + "\": sending as \"" +
            producer.getName() + "\"");
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
    kit::Producer producer(makeProducerOptions(options, clock));
    // Frees a pipeline send that waits for its receiver.
    const StopListener freeSends(stop, [&producer] { producer.stop(); });
    if (!openProducer(producer, payloader, options, stop))
        return;
    report.name = producer.getName();

    const kit::RealTimeScope realTime(options.realTime);
    FramePump pump(
        producer, payloader, input, clock, stop, report, [&] { report.write(options.report); });
    pump.run(makePumpSettings(options));
    finishProgress(report.frames > 0 ? pump.describeProgress() : std::string());
    producer.close();
}

int getExitCode(const Playlist& input, const StopSignal& stop)
{
    if (stop.isRequested())
        return toExitCode(stop.getSignalNumber());
    const std::string problem = input.getProblem();
    if (problem.empty())
        return toInt(ExitCode::Done);
    printError(problem);
    return toInt(ExitCode::Failed);
}

} // unnamed namespace

int runSend(const SendOptions& options, StopSignal& stop)
{
    Playlist input = openPlaylist(options, stop);
    if (!input.isOpen())
        return toExitCode(stop.getSignalNumber());
    StreamClock clock(
        options.clock.value_or(ClockChoice::System), options.clockAddress, options.clockPort);
    if (!clock.waitUntilReady(options.timeout, stop))
        return toExitCode(stop.getSignalNumber());

    SendReport report = makeReport(options, input, clock);
    report.write(options.report);
    sendInput(input, options, clock, stop, report);
    report.finished = !stop.isRequested() && input.getProblem().empty();
    report.write(options.report, true);
    return getExitCode(input, stop);
}

} // namespace vlx::tool
