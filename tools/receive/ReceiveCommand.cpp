#include "ReceiveCommand.hpp"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include <nlohmann/json.hpp>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/BaseDirectory.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>

#include "ReceiveOptions.hpp"
#include "Recorder.hpp"
#include "audio/AudioOutput.hpp"
#include "common/Duration.hpp"
#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/ReportFile.hpp"
#include "common/StopSignal.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr auto DefaultStall = std::chrono::seconds(2);
constexpr auto WatchInterval = milliseconds(100);

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
        const TimeValue measured =
            synchronized ? miscUtils::getMonotonicSysclockTime() + frame.timestamp - streamTime
                         : frame.arrival;
        // However the measurement jitters, frames that continue one another are played so.
        const TimeValue step = synchronized ? frame.timestamp - m_lastTimestamp : m_lastDuration;
        const auto late = static_cast<std::int64_t>(measured - (m_lastTime + step));
        const bool jumps = late > MaxJitterNs || late < -MaxJitterNs;
        m_lastTime =
            jumps ? measured : m_lastTime + step + static_cast<TimeValue>(late / SmoothingFrames);
        m_lastTimestamp = frame.timestamp;
        m_lastDuration = frame.duration;
        return m_lastTime;
    }

private:
    static constexpr std::int64_t MaxJitterNs = 50'000'000;
    static constexpr std::int64_t SmoothingFrames = 64;

    Receiver::StreamClockType m_clock = Receiver::StreamClockType::Undetermined;
    TimeValue m_lastTime = 0;
    TimeValue m_lastTimestamp = 0;
    TimeValue m_lastDuration = 0;
};

/// The control loop of a recording: joins recorder and consumer, until something ends it.
class ReceiveControl
{
public:
    ReceiveControl(const ReceiveOptions& options, StopSignal& stop);

    /// @return the exit code, if nothing fails while the recording is finished
    /// @throws CommandFailure
    int run();

    /// Ends consumer and recording and writes the report, whatever ended the control loop.
    void finish();

    bool hasFailed() const
    {
        return m_recorder.getState() == RecorderState::Failed;
    }

private:
    std::unique_ptr<AudioOutput> openNextOutput(std::size_t number) const;
    RecorderSettings makeSettings() const;
    void onFrame(const kit::Frame& frame);
    void onFormat(const kit::StreamFormat& format);
    void onEvent(const kit::ConsumerEvent& event);
    void noteProblem(const kit::ConsumerEvent& event);
    void pushEnd(const kit::ConsumerEvent& event, EndReason reason);
    void ring();
    void waitUntil(SteadyClock::time_point deadline);
    Deadline getDeadline() const;
    void checkTimeout();
    void checkRefusal();
    bool hasSenderLeftUnseen() const;

    const ReceiveOptions& m_options;
    StopSignal& m_stop;
    const SteadyClock::time_point m_begin = SteadyClock::now();

    std::mutex m_mutex;
    std::condition_variable m_condition;
    // Guarded by m_mutex.
    bool m_rung = false;
    std::string m_lastProblem; // why nothing comes
    std::string m_refusal;     // why nothing can ever be recorded

    LocalTimes m_localTimes; // the consumer's callbacks alone
    std::atomic<bool> m_stalled = false;
    Recorder m_recorder;
    kit::Consumer m_consumer; // last: its callbacks use all of the above
};

ReceiveControl::ReceiveControl(const ReceiveOptions& options, StopSignal& stop)
    : m_options(options),
      m_stop(stop),
      m_recorder(makeSettings(), miscUtils::getMonotonicSysclockTime(), [this] { ring(); }),
      m_consumer(
          {options.name, {}, options.stall.value_or(DefaultStall), options.realTime},
          {.onFrame = [this](const kit::Frame& frame) { onFrame(frame); },
           .onFormat = [this](const kit::StreamFormat& format) { onFormat(format); },
           .onEvent = [this](const kit::ConsumerEvent& event) { onEvent(event); }})
{
}

RecorderSettings ReceiveControl::makeSettings() const
{
    const bool plays = !m_options.play.empty();
    return {
        [this](std::size_t number) { return openNextOutput(number); },
        plays             ? FormatChange::Restart
        : m_options.split ? FormatChange::Split
                          : FormatChange::Refuse,
        !plays && !m_options.noFill, m_options.duration, m_options.oneshot};
}

/// @return the path with a number before its extension
std::string numberPath(const std::string& path, std::size_t number)
{
    const std::size_t name = path.rfind('/') + 1; // 0 without a directory
    const std::size_t dot = path.rfind('.');
    const bool hasExtension = dot != std::string::npos && dot > name;
    std::string numbered = path;
    return numbered.insert(hasExtension ? dot : path.size(), formatText("-%03zu", number + 1));
}

std::unique_ptr<AudioOutput> ReceiveControl::openNextOutput(std::size_t number) const
{
    if (!m_options.play.empty())
    {
        PlaySettings settings{m_options.play, {}, m_options.realTime};
        settings.latency = m_options.latency.value_or(PlaySettings().latency);
        return openPlayOutput(settings, m_stop);
    }
    const std::string path =
        m_options.split ? numberPath(m_options.output, number) : m_options.output;
    return openOutput(path, m_options.type, {m_stop, getDeadline()});
}

void ReceiveControl::onFrame(const kit::Frame& frame)
{
    StreamEvent event;
    event.time = frame.arrival;
    event.timestamp = frame.timestamp;
    event.duration = frame.duration;
    event.gapNs = frame.gapNs;
    if (!m_options.play.empty())
        event.localTime = m_localTimes.get(frame, m_consumer);
    m_recorder.getQueue().pushFrame(std::move(event), frame.data);
}

void ReceiveControl::onFormat(const kit::StreamFormat& format)
{
    const auto clock = m_consumer.getStatistics().clock;
    m_localTimes.setClock(clock);
    m_recorder.getQueue().push(
        {.kind = StreamEvent::Kind::Format, .format = format, .clock = clock});
}

void ReceiveControl::onEvent(const kit::ConsumerEvent& event)
{
    using Kind = kit::ConsumerEvent::Kind;
    switch (event.kind)
    {
    case Kind::Joined:
        m_stalled = false;
        m_recorder.getQueue().push({.kind = StreamEvent::Kind::Joined, .time = event.time});
        break;
    case Kind::Lost:
        m_stalled = false;
        pushEnd(event, EndReason::Lost);
        break;
    case Kind::Stalled:
        m_stalled = true;
        pushEnd(event, EndReason::Stall);
        break;
    case Kind::CannotPlay:
    case Kind::NotPermitted:
    case Kind::Stranger:
    case Kind::Failed:
        noteProblem(event);
        break;
    }
}

void ReceiveControl::pushEnd(const kit::ConsumerEvent& event, EndReason reason)
{
    m_recorder.getQueue().push(
        {.kind = StreamEvent::Kind::Ended,
         .time = event.time,
         .reason = reason,
         .text = event.text});
}

// What is asked again and again is said once.
void ReceiveControl::noteProblem(const kit::ConsumerEvent& event)
{
    const bool final = event.kind == kit::ConsumerEvent::Kind::CannotPlay;
    bool isNew = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        isNew = m_lastProblem != event.text;
        m_lastProblem = event.text;
        if (final && event.fourcc == PcmFourcc)
            m_refusal =
                "cannot play \"" + m_options.name + "\": it announces a PCM format that is none";
        else if (final)
            m_refusal = "cannot play codec \"" + kit::toFourccText(event.fourcc) + "\" of \"" +
                        m_options.name + "\", only PCM";
    }
    if (final)
        ring();
    else if (isNew)
        printNotice(event.text);
}

void ReceiveControl::ring()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_rung = true;
    }
    m_condition.notify_one();
}

void ReceiveControl::waitUntil(SteadyClock::time_point deadline)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_condition.wait_until(lock, deadline, [this] { return m_rung; });
    m_rung = false;
}

int ReceiveControl::run()
{
    const StopListener stopListener(m_stop, [this] { ring(); });
    if (!m_consumer.start())
        throw CommandFailure(ExitCode::Failed, m_consumer.getProblem());
    if (!m_consumer.getProblem().empty())
        printNotice(m_consumer.getProblem());
    while (!m_stop.isRequested() && m_recorder.getState() == RecorderState::Going)
    {
        const auto next = SteadyClock::now() + WatchInterval;
        const Deadline deadline = m_recorder.getNumFrames() == 0 ? getDeadline() : Deadline();
        waitUntil(std::min(next, deadline.value_or(next)));
        if (m_stop.isRequested() || m_recorder.getState() != RecorderState::Going)
            break;
        checkTimeout();
        checkRefusal();
        if (hasSenderLeftUnseen())
            return toInt(ExitCode::Done);
        printProgress(m_recorder.describeProgress());
    }
    return m_stop.isRequested() && m_recorder.getState() == RecorderState::Going
               ? toExitCode(m_stop.getSignalNumber())
               : toInt(ExitCode::Done);
}

Deadline ReceiveControl::getDeadline() const
{
    return m_options.timeout ? Deadline(m_begin + *m_options.timeout) : Deadline();
}

void ReceiveControl::checkTimeout()
{
    const Deadline deadline = getDeadline();
    if (!deadline || m_recorder.getNumFrames() > 0 || SteadyClock::now() < *deadline)
        return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    const bool reachable = !m_lastProblem.empty() || kit::isNameTaken(m_options.name);
    throw CommandFailure(
        ExitCode::TimedOut, (reachable ? "no frame from \"" : "no sender \"") + m_options.name +
                                "\" within " + toText(*m_options.timeout) +
                                (m_lastProblem.empty() ? "" : " (" + m_lastProblem + ")"));
}

void ReceiveControl::checkRefusal()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_refusal.empty())
        throw CommandFailure(ExitCode::Failed, m_refusal);
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
    if (options.report.empty())
        return;
    const std::string problem = writeReportFile(options.report, report);
    if (!problem.empty())
        throw CommandFailure(ExitCode::Failed, problem);
}

void ReceiveControl::finish()
{
    m_consumer.stop();
    m_recorder.getQueue().push({.kind = StreamEvent::Kind::Ended, .reason = EndReason::Stop});
    m_recorder.finish();
    finishProgress();
    if (m_recorder.getNumFrames() > 0)
        printNotice(m_recorder.summarize());

    nlohmann::ordered_json report = makeReport(m_options);
    report["finished"] = true;
    report["stalls"] = m_consumer.getStatistics().stalls;
    m_recorder.addToReport(report);
    writeReport(m_options, report);
}

void checkBaseDirectory()
{
    const auto base = kit::prepareBaseDirectory(kit::BaseDirectoryUse::Receive);
    if (!base.problem.empty())
        throw CommandFailure(ExitCode::Failed, base.problem);
    if (base.created)
        printNotice("created " + base.path + " (mode 1777), where senders and receivers meet");
    if (!base.writable)
        printNotice(base.path + " is not writable: stopping can take up to 5 seconds");
}

} // unnamed namespace

int runReceive(const ReceiveOptions& options, StopSignal& stop)
{
    checkBaseDirectory();
    ReceiveControl control(options, stop);
    if (stop.isRequested())
        return toExitCode(stop.getSignalNumber());
    if (options.report != "-")
        writeReport(options, makeReport(options));

    int code = toInt(ExitCode::Done);
    try
    {
        code = control.run();
    }
    catch (const CommandFailure&)
    {
        control.finish();
        throw;
    }
    control.finish();
    return control.hasFailed() ? toInt(ExitCode::Failed) : code;
}

} // namespace vlx::tool
