#include "SendCommand.hpp"

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

#include <Bell.hpp>
#include <SequenceAnnouncer.hpp>
#include <TailWait.hpp>
#include <vlxkit/BaseDirectory.hpp>
#include <vlxkit/Discovery.hpp>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxSender.hpp>

#include "FramePump.hpp"
#include "SendOptions.hpp"
#include "SendReport.hpp"
#include "StreamClock.hpp"
#include "audio/AudioInput.hpp"
#include "common/Duration.hpp"
#include "common/ExitCodes.hpp"
#include "common/LogSetup.hpp"
#include "common/Messages.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

using SteadyClock = std::chrono::steady_clock;

constexpr auto DefaultFrame = std::chrono::milliseconds(10);
constexpr auto ReceiverCheckInterval = std::chrono::milliseconds(5);

std::unique_ptr<AudioInput> openInput(const SendOptions& options, const StopSignal& stop)
{
    if (options.toneHz.has_value() == !options.input.empty())
        throw CommandFailure(ExitCode::Usage, "give either an INPUT or --tone; see --help");
    if (options.toneHz)
        return makeToneInput(*options.toneHz, options.format);
    if (options.input == "-" || options.raw)
        return openRawInput(options.input, options.format, stop);
    if (options.formatGiven)
        throw CommandFailure(
            ExitCode::Usage, "-f, -r and -c are for raw input only: add --raw, or leave them out");
    return openFileInput(options.input);
}

std::size_t getSamplesPerFrame(const SendOptions& options, const kit::StreamFormat& format)
{
    const auto frame = options.frame.value_or(DefaultFrame);
    return std::max<std::uint64_t>(format.toSamples(static_cast<TimeValue>(frame.count())), 1);
}

void prepareBaseDirectory()
{
    const auto base = kit::prepareBaseDirectory(kit::BaseDirectoryUse::Send);
    if (!base.problem.empty())
        throw CommandFailure(ExitCode::Failed, base.problem);
    if (base.created)
        printNotice("created " + base.path + " (mode 1777), where senders and receivers meet");
}

void openSender(Sender& sender, const SendOptions& options, const StreamClock& clock)
{
    if (kit::isNameTaken(options.name))
        throw CommandFailure(
            ExitCode::Failed, "the name \"" + options.name + "\" is taken by another sender");
    if (!sender.initializeSender(
            options.name, {}, clock.getAddress(), clock.getPort(), clock.getProtocol(),
            options.protocol))
        throw CommandFailure(
            ExitCode::Failed,
            "cannot open the stream \"" + options.name + "\"" + quoteLastLibraryError());
}

/// Makes an open sender's stream known. The sequence comes first: the sooner, the fewer receivers
/// have joined that could miss it.
void makeKnown(
    Sender& sender,
    PcmPayloader& payloader,
    kit::SequenceAnnouncer& announcer,
    const SendOptions& options)
{
    sender.setCurrentPayloader(payloader);
    announcer.announce();
    const std::string problem = kit::protectSocketFile(
        kit::findSocketFile(options.name), options.protocol, options.socketMode);
    if (!problem.empty())
        printNotice(problem + "; receivers of other users may get no frames");
    kit::ringBell();
}

/// @return whether they are there; otherwise a stop was asked for
bool waitForReceivers(
    kit::SequenceAnnouncer& announcer,
    const SendOptions& options,
    StopSignal& stop)
{
    if (options.waitReceivers == 0)
        return !stop.isRequested();

    const auto start = SteadyClock::now();
    std::size_t joined = 0;
    while ((joined = announcer.checkReceivers()) < options.waitReceivers)
    {
        const auto now = SteadyClock::now();
        const std::string count =
            std::to_string(joined) + " of " + std::to_string(options.waitReceivers) + " receivers";
        if (options.timeout && now - start >= *options.timeout)
            throw CommandFailure(
                ExitCode::TimedOut, count + " joined within " + toText(*options.timeout));
        printProgress("waiting: " + count);
        if (stop.waitUntil(now + ReceiverCheckInterval))
            return false;
    }
    return !stop.isRequested();
}

void writeReport(const SendReport& report, const std::string& path)
{
    const std::string problem = report.write(path);
    if (!problem.empty())
        throw CommandFailure(ExitCode::Failed, problem);
}

PumpSettings makePumpSettings(const SendOptions& options, const kit::StreamFormat& format)
{
    PumpSettings settings{getSamplesPerFrame(options, format), std::nullopt, options.loop};
    if (options.duration)
        settings.maxSamples = format.toSamples(static_cast<TimeValue>(options.duration->count()));
    return settings;
}

/// Lets the last frame leave. A stop cuts the wait for a long frame short, but never below what the
/// transport needs.
void waitForTail(std::chrono::nanoseconds frameDuration, StopSignal& stop)
{
    const auto now = SteadyClock::now();
    stop.waitUntil(now + kit::getTailWait(frameDuration));
    std::this_thread::sleep_until(now + kit::getTailWait({}));
}

/// Sends the whole input over an open stream.
void sendInput(
    Sender& sender,
    AudioInput& input,
    const SendOptions& options,
    const StreamClock& clock,
    StopSignal& stop,
    SendReport& report)
{
    const kit::StreamFormat& format = input.getFormat();
    PcmPayloader payloader;
    payloader.setNewFormat(format.rate, format.channels, format.sampleFormat);
    // Frees a pipeline send that waits for its receiver.
    const StopListener freeSends(stop, [&sender] { sender.disableSend(true); });
    kit::SequenceAnnouncer announcer(sender);
    makeKnown(sender, payloader, announcer, options);

    const PumpSettings settings = makePumpSettings(options, format);
    const auto onRunBegins = [&] { writeReport(report, options.report); };
    if (waitForReceivers(announcer, options, stop))
        FramePump(sender, announcer, input, clock, stop, report, onRunBegins).run(settings);
    finishProgress();
    if (report.frames > 0)
        waitForTail(std::chrono::nanoseconds(format.toNanoseconds(settings.samplesPerFrame)), stop);
    sender.shutdownSender();
}

int getExitCode(const AudioInput& input, const StopSignal& stop)
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
    const std::unique_ptr<AudioInput> input = openInput(options, stop);
    prepareBaseDirectory();
    StreamClock clock(options.clockAddress, options.clockPort);
    if (!clock.waitUntilReady(options.timeout, stop))
        return toExitCode(stop.getSignalNumber());

    SendReport report;
    report.name = options.name;
    report.input = options.input;
    report.format = input->getFormat();
    report.clock = toString(clock.getProtocol());
    writeReport(report, options.report);

    Sender sender;
    openSender(sender, options, clock);
    sendInput(sender, *input, options, clock, stop, report);

    report.finished = !stop.isRequested() && input->getProblem().empty();
    writeReport(report, options.report);
    return getExitCode(*input, stop);
}

} // namespace vlx::tool
