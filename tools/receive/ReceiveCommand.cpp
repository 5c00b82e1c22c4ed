#include "ReceiveCommand.hpp"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <utility>

#include <nlohmann/json.hpp>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>

#include "Commands.hpp"
#include "Recorder.hpp"
#include "audio/AudioOutput.hpp"
#include "common/Duration.hpp"
#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/ReportFile.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

using SteadyClock = std::chrono::steady_clock;

constexpr auto DefaultStall = std::chrono::seconds(2);
constexpr auto WatchInterval = std::chrono::milliseconds(50);

/// Tells when the frames of a stream are to be played.
class LocalTimes
{
public:
    void setClock(Receiver::StreamClockType clock)
    {
        m_clock = clock;
    }

    /// @return the frame's timestamp on CLOCK_MONOTONIC; as near as can be told if the stream's
    ///         clock cannot be told
    TimeValue get(const kit::Frame& frame, const kit::Consumer& consumer)
    {
        if (m_clock == Receiver::StreamClockType::MonotonicSystemClock)
            return frame.timestamp;
        const TimeValue streamTime = consumer.getStreamTime();
        const bool synchronized = streamTime != 0;
        const TimeValue time = synchronized ? frame.timestamp : m_received;
        const auto offset = static_cast<std::int64_t>(
            synchronized ? miscUtils::getMonotonicSysclockTime() - streamTime
                         : frame.arrival - time);
        m_received += frame.duration;
        // However the measurement jitters, frames that continue one another are played so.
        const std::int64_t change = offset - m_offset;
        m_offset += std::abs(change) > MaxJitterNs ? change : change / SmoothingFrames;
        return time + static_cast<TimeValue>(m_offset);
    }

private:
    static constexpr std::int64_t MaxJitterNs = 50'000'000;
    static constexpr std::int64_t SmoothingFrames = 64;

    Receiver::StreamClockType m_clock = Receiver::StreamClockType::Undetermined;
    std::int64_t m_offset = 0; // of CLOCK_MONOTONIC against the time that frames count from
    TimeValue m_received = 0;  // sum of durations: stands in for timestamps that tell nothing
};

/// A recording from joining to the last line: recorder and consumer, and what ends them.
class ReceiveControl
{
public:
    ReceiveControl(const ReceiveOptions& options, const StopSignal& stop);

    /// Receives until something ends it, and finishes the recording whatever that was.
    ///
    /// @return the exit code
    /// @throws CommandFailure if the report cannot be written
    int run();

private:
    void onFrame(const kit::Frame& frame);
    void onFormat(const kit::StreamFormat& format);
    void onEvent(const kit::ConsumerEvent& event);
    void noteProblem(const kit::ConsumerEvent& event);
    int watch();
    void finish();
    void check();
    bool hasSenderLeftUnseen() const;

    const ReceiveOptions& m_options;
    const StopSignal& m_stop;
    const Deadline m_deadline; // of the first frame

    std::mutex m_mutex;
    // Guarded by m_mutex.
    std::string m_lastProblem; // why nothing comes
    bool m_isHopeless = false; // for good

    LocalTimes m_localTimes; // the consumer's callbacks alone
    std::atomic<bool> m_stalled = false;
    std::atomic<bool> m_isFinishing = false;
    Recorder m_recorder;
    kit::Consumer m_consumer; // last: its callbacks use all of the above
};

ReceiveControl::ReceiveControl(const ReceiveOptions& options, const StopSignal& stop)
    : m_options(options),
      m_stop(stop),
      m_deadline(options.timeout ? Deadline(SteadyClock::now() + *options.timeout) : Deadline()),
      m_recorder(options, {stop, m_deadline}, miscUtils::getMonotonicSysclockTime()),
      m_consumer(
          {.name = options.name,
           .stallTimeout = options.stall.value_or(DefaultStall),
           .realTime = options.realTime,
           .senderUser = options.senderUser,
           .onNotice = printNotice},
          {.onFrame = [this](const kit::Frame& frame) { onFrame(frame); },
           .onFormat = [this](const kit::StreamFormat& format) { onFormat(format); },
           .onEvent = [this](const kit::ConsumerEvent& event) { onEvent(event); }})
{
}

void ReceiveControl::onFrame(const kit::Frame& frame)
{
    const TimeValue localTime = m_options.play.empty() ? 0 : m_localTimes.get(frame, m_consumer);
    m_recorder.getQueue().push(ReceivedFrame{
        frame.arrival, frame.timestamp, localTime, frame.duration, frame.gapNs, frame.data});
}

void ReceiveControl::onFormat(const kit::StreamFormat& format)
{
    const auto clock = m_consumer.getStatistics().clock;
    m_localTimes.setClock(clock);
    m_recorder.getQueue().push(AnnouncedFormat{format, clock});
}

void ReceiveControl::onEvent(const kit::ConsumerEvent& event)
{
    using Kind = kit::ConsumerEvent::Kind;
    switch (event.kind)
    {
    case Kind::Joined:
    case Kind::Lost:
    case Kind::Stalled:
        if (m_isFinishing) // leaving at the end is no loss
            break;
        m_stalled = event.kind == Kind::Stalled;
        m_recorder.getQueue().push(event);
        break;
    case Kind::CannotPlay:
    case Kind::NotPermitted:
    case Kind::NotASender:
    case Kind::Failed:
        noteProblem(event);
        break;
    }
}

// What is asked again and again is said once, and what ends the command at its end.
void ReceiveControl::noteProblem(const kit::ConsumerEvent& event)
{
    bool isNew = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        isNew = std::exchange(m_lastProblem, event.text) != event.text;
        m_isHopeless |= event.kind == kit::ConsumerEvent::Kind::CannotPlay;
    }
    if (isNew && event.kind != kit::ConsumerEvent::Kind::CannotPlay)
        printNotice(event.text);
}

int ReceiveControl::run()
{
    int code = toInt(ExitCode::Done);
    try
    {
        code = watch();
    }
    catch (const CommandFailure& failure)
    {
        code = toInt(failure.getCode());
        printError(failure.what());
    }
    finish();
    return m_recorder.getState() == RecorderState::Failed ? toInt(ExitCode::Failed) : code;
}

int ReceiveControl::watch()
{
    if (const kit::Status status = m_consumer.start(); !status)
        throw CommandFailure(ExitCode::Failed, status.getText());
    while (m_recorder.getState() == RecorderState::Going &&
           !m_stop.waitUntil(SteadyClock::now() + WatchInterval))
    {
        check();
        if (hasSenderLeftUnseen())
            return toInt(ExitCode::Done);
        printProgress(m_recorder.describeProgress());
    }
    return m_recorder.getState() == RecorderState::Going ? toExitCode(m_stop.getSignalNumber())
                                                         : toInt(ExitCode::Done);
}

/// @throws CommandFailure if nothing can or will be recorded
void ReceiveControl::check()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_isHopeless)
        throw CommandFailure(ExitCode::Failed, m_lastProblem);
    if (!m_deadline || m_recorder.getNumFrames() > 0 || SteadyClock::now() < *m_deadline)
        return;
    const bool reachable = !m_lastProblem.empty() || kit::isNameTaken(m_options.name);
    throw CommandFailure(
        ExitCode::TimedOut, (reachable ? "no frame from \"" : "no sender \"") + m_options.name +
                                "\" within " + toText(*m_options.timeout) +
                                (m_lastProblem.empty() ? "" : " (" + m_lastProblem + ")"));
}

// A sender that is killed while it hangs was not joined again, so nobody reports its loss.
bool ReceiveControl::hasSenderLeftUnseen() const
{
    return m_options.oneshot && m_stalled && m_recorder.getNumFrames() > 0 &&
           !kit::isNameTaken(m_options.name);
}

nlohmann::ordered_json makeReport(const ReceiveOptions& options)
{
    return {{"stream", options.name}, {"output", options.output}, {"finished", false}};
}

void writeReport(const ReceiveOptions& options, const nlohmann::ordered_json& report)
{
    if (!options.report.empty())
        writeJson(options.report, report);
}

void ReceiveControl::finish()
{
    m_isFinishing = true;
    m_consumer.stop();
    m_recorder.finish();
    if (m_recorder.getNumFrames() > 0)
        printNotice(m_recorder.summarize()); // in the place of the progress
    else
        finishProgress();

    nlohmann::ordered_json report = makeReport(m_options);
    report["finished"] = true;
    report["stalls"] = m_consumer.getStatistics().stalls;
    m_recorder.addToReport(report);
    writeReport(m_options, report);
}

int runReceive(const ReceiveOptions& options, StopSignal& stop)
{
    ReceiveControl control(options, stop);
    if (stop.isRequested())
        return toExitCode(stop.getSignalNumber());
    if (isReplaced(options.report))
        writeReport(options, makeReport(options));
    return control.run();
}

} // unnamed namespace

Subcommand makeReceiveCommand()
{
    return makeSubcommand(addReceiveCommand, runReceive);
}

} // namespace vlx::tool
