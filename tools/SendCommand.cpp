#include "SendCommand.hpp"

#include <algorithm>
#include <chrono>
#include <memory>

#include <toolkit/BaseDirectory.hpp>
#include <toolkit/Bell.hpp>
#include <toolkit/Sidechannel.hpp>
#include <toolkit/TailWait.hpp>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxSender.hpp>

#include "AudioInput.hpp"
#include "Duration.hpp"
#include "ExitCodes.hpp"
#include "FramePump.hpp"
#include "LogSetup.hpp"
#include "Messages.hpp"
#include "SendOptions.hpp"
#include "SendReport.hpp"
#include "StopSignal.hpp"
#include "StreamClock.hpp"

namespace vlx::tool
{

namespace
{

using SteadyClock = std::chrono::steady_clock;

constexpr auto DefaultFrame = std::chrono::milliseconds(10);
constexpr auto ReceiverCheckInterval = std::chrono::milliseconds(5);

// A receiver that counts as joined still has to read the announcement of the sequence; until then it
// refuses frames.
constexpr auto AnnouncementMargin = std::chrono::milliseconds(20);

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

std::size_t getSamplesPerFrame(const SendOptions& options, const StreamFormat& format)
{
    const auto frame = options.frame.value_or(DefaultFrame);
    return std::max<std::uint64_t>(format.toSamples(static_cast<TimeValue>(frame.count())), 1);
}

void prepareBaseDirectory()
{
    const auto base = toolkit::prepareBaseDirectory(toolkit::BaseDirectoryUse::Send);
    if (!base.problem.empty())
        throw CommandFailure(ExitCode::Failed, base.problem);
    if (base.created)
        printNotice("created " + base.path + " (mode 1777), where senders and receivers meet");
}

/// Opens the stream and makes it known, in the one order that loses nothing.
void openStream(
    Sender& sender,
    PcmPayloader& payloader,
    const SendOptions& options,
    const StreamClock& clock)
{
    if (toolkit::isNameTaken(options.name))
        throw CommandFailure(
            ExitCode::Failed, "the name \"" + options.name + "\" is taken by another sender");
    if (!sender.initializeSender(
            options.name, {}, clock.getAddress(), clock.getPort(), clock.getProtocol(),
            options.protocol))
        throw CommandFailure(
            ExitCode::Failed,
            "cannot open the stream \"" + options.name + "\"" + quoteLastLibraryError());
    sender.setCurrentPayloader(payloader);
    sender.startNewSequence();

    const std::string problem = toolkit::setSocketFileMode(options.name, options.socketMode);
    if (!problem.empty())
        printNotice(problem + "; receivers of other users may get no frames");
    toolkit::ringBell();
}

/// @return whether they are there; otherwise a stop was asked for
bool waitForReceivers(const Sender& sender, const SendOptions& options, StopSignal& stop)
{
    if (options.waitReceivers == 0)
        return !stop.isRequested();

    const auto start = SteadyClock::now();
    std::size_t joined = 0;
    while ((joined = sender.getNumReceivers()) < options.waitReceivers)
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
    return !stop.waitUntil(SteadyClock::now() + AnnouncementMargin);
}

void writeReport(const SendReport& report, const std::string& path)
{
    const std::string problem = report.write(path);
    if (!problem.empty())
        throw CommandFailure(ExitCode::Failed, problem);
}

int finish(const AudioInput& input, const StopSignal& stop)
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
    const StreamFormat& format = input->getFormat();
    prepareBaseDirectory();
    StreamClock clock(options.clockAddress, options.clockPort);
    if (!clock.waitUntilReady(options.timeout, stop))
        return toExitCode(stop.getSignalNumber());

    SendReport report;
    report.name = options.name;
    report.input = options.input;
    report.format = format;
    report.clock = toString(clock.getProtocol());
    writeReport(report, options.report);
    PcmPayloader payloader;
    payloader.setNewFormat(format.rate, format.channels, format.sampleFormat);
    Sender sender;
    openStream(sender, payloader, options, clock);
    // Frees a pipeline send that waits for its receiver.
    const StopListener freeSends(stop, [&sender] { sender.disableSend(true); });

    PumpSettings settings{getSamplesPerFrame(options, format), std::nullopt, options.loop};
    if (options.duration)
        settings.maxSamples = format.toSamples(static_cast<TimeValue>(options.duration->count()));
    if (waitForReceivers(sender, options, stop))
        FramePump(sender, *input, clock, stop, report, [&] { writeReport(report, options.report); })
            .run(settings);

    finishProgress();
    report.finished = !stop.isRequested() && input->getProblem().empty();
    if (report.frames > 0)
        stop.waitUntil(
            SteadyClock::now() + toolkit::getTailWait(std::chrono::nanoseconds(
                                     format.toNanoseconds(settings.samplesPerFrame))));
    sender.shutdownSender();
    writeReport(report, options.report);
    return finish(*input, stop);
}

} // namespace vlx::tool
