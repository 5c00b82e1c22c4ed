#include "ReceiveCommand.hpp"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>

#include <nlohmann/json.hpp>
#include <vlxkit/BaseDirectory.hpp>
#include <vlxkit/Discovery.hpp>

#include <miscUtils/MiscUtils.hpp>

#include "ReceiveOptions.hpp"
#include "ReceiverSession.hpp"
#include "Recorder.hpp"
#include "audio/AudioOutput.hpp"
#include "common/Duration.hpp"
#include "common/ExitCodes.hpp"
#include "common/LogSetup.hpp"
#include "common/Messages.hpp"
#include "common/ReportFile.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr auto DefaultStall = std::chrono::seconds(2);
constexpr auto WatchInterval = milliseconds(100);
constexpr auto AnswerTimeout = milliseconds(300);
// How long a sender is left alone that drops every connection.
constexpr auto PauseAfterFlapping = std::chrono::seconds(2);
// A sender that listens is normally joined within milliseconds.
constexpr TimeValue SuspiciousConnectingNs = 1'000'000'000;

/// Wakes the control loop from other threads.
class ControlBell
{
public:
    void ring()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_rung = true;
        }
        m_condition.notify_one();
    }

    void waitUntil(SteadyClock::time_point deadline)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_condition.wait_until(lock, deadline, [this] { return m_rung; });
        m_rung = false;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_rung = false; // guarded by m_mutex
};

/// The control loop of a recording: watches over the receiver until something ends it.
class ReceiveControl
{
public:
    ReceiveControl(
        const ReceiveOptions& options,
        ControlBell& bell,
        Recorder& recorder,
        ReceiverSession& session,
        const StopSignal& stop)
        : m_options(options), m_bell(bell), m_recorder(recorder), m_session(session), m_stop(stop)
    {
    }

    /// @return the exit code, if nothing fails while the recording is finished
    /// @throws CommandFailure
    int run()
    {
        m_begin = SteadyClock::now();
        m_session.start();
        while (!m_stop.isRequested() && m_recorder.getState() == RecorderState::Going)
        {
            m_bell.waitUntil(std::min(SteadyClock::now() + WatchInterval, getTimeoutTime()));
            if (m_stop.isRequested() || m_recorder.getState() != RecorderState::Going)
                break;
            checkTimeout();
            superviseReceiver();
            showProgress();
        }
        return m_stop.isRequested() && m_recorder.getState() == RecorderState::Going
                   ? toExitCode(m_stop.getSignalNumber())
                   : toInt(ExitCode::Done);
    }

private:
    SteadyClock::time_point getTimeoutTime() const
    {
        if (!m_options.timeout || m_recorder.getNumFrames() > 0)
            return SteadyClock::time_point::max();
        return m_begin + *m_options.timeout;
    }

    void checkTimeout() const
    {
        if (SteadyClock::now() < getTimeoutTime())
            return;
        const bool reachable = kit::isNameTaken(m_options.name);
        throw CommandFailure(
            ExitCode::TimedOut, (reachable ? "no frame from \"" : "no sender \"") + m_options.name +
                                    "\" within " + toText(*m_options.timeout));
    }

    void superviseReceiver()
    {
        if (m_session.hasGivenUp())
            throw CommandFailure(
                ExitCode::Failed, "cannot go on receiving" + quoteLastLibraryError());
        if (m_paused)
            endPause();
        else if (m_session.isFlapping() || isStrangerSuspected())
            examineSender();
        else if (m_session.isStalled())
            restartAfterStall();
    }

    // One who accepts connections and closes them at once keeps the receiver in a tight loop that it
    // does not report.
    bool isStrangerSuspected()
    {
        const TimeValue since = m_session.getConnectingSince();
        const TimeValue now = miscUtils::getMonotonicSysclockTime();
        if (since == 0 || now - since < SuspiciousConnectingNs)
            return false;
        const kit::SenderProbe answer = kit::probeSender(m_options.name, AnswerTimeout);
        return answer.closedEarly && !answer.initialInfo;
    }

    void examineSender()
    {
        m_session.stop(EndReason::Lost);
        const kit::SenderProbe answer = kit::probeSender(m_options.name, AnswerTimeout);
        if (answer.fourcc && *answer.fourcc != PcmFourcc)
            throw CommandFailure(
                ExitCode::Failed, "cannot play codec \"" + kit::toFourccText(*answer.fourcc) +
                                      "\" of \"" + m_options.name + "\", only PCM");
        PcmDepayloader depayloader;
        if (answer.fourcc && !depayloader.processCodecHeader(answer.codecHeader))
            throw CommandFailure(
                ExitCode::Failed,
                "cannot play \"" + m_options.name + "\": it announces a PCM format that is none");

        if (!m_strangerReported)
            printNotice(
                "\"" + m_options.name +
                "\" ends every connection before it announces a stream; trying again every " +
                toText(PauseAfterFlapping));
        m_strangerReported = true;
        m_paused = true;
        m_pauseEnd = SteadyClock::now() + PauseAfterFlapping;
    }

    void endPause()
    {
        if (SteadyClock::now() < m_pauseEnd)
            return;
        m_paused = false;
        m_session.start();
    }

    void restartAfterStall()
    {
        if (m_session.getNumStalls() == 0)
            printNotice("joined, but no frames come: joining again, from now on silently");
        m_session.restartAfterStall();
    }

    void showProgress()
    {
        const double seconds = std::chrono::duration<double>(m_recorder.getDuration()).count();
        char text[128];
        std::snprintf(
            text, sizeof(text), "%.1f s received in %llu frames", seconds,
            static_cast<unsigned long long>(m_recorder.getNumFrames()));
        printProgress(m_recorder.getNumFrames() == 0 ? "waiting for the sender" : text);
    }

    const ReceiveOptions& m_options;
    ControlBell& m_bell;
    Recorder& m_recorder;
    ReceiverSession& m_session;
    const StopSignal& m_stop;
    SteadyClock::time_point m_begin;
    SteadyClock::time_point m_pauseEnd;
    bool m_paused = false; // the receiver is stopped until m_pauseEnd
    bool m_strangerReported = false;
};

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

std::unique_ptr<AudioOutput> openOutput(const ReceiveOptions& options, const StopSignal& stop)
{
    const bool raw = options.raw || options.output == "-" || isRawPath(options.output);
    return raw ? openRawOutput(options.output, stop) : openFileOutput(options.output);
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

/// Ends receiver and recording and writes the report, whatever ended the control loop.
void endRecording(const ReceiveOptions& options, Recorder& recorder, ReceiverSession& session)
{
    session.stop(EndReason::Stop);
    finishProgress();
    recorder.finish();

    nlohmann::ordered_json report = makeReport(options);
    report["finished"] = true;
    report["stalls"] = session.getNumStalls();
    recorder.addToReport(report);
    writeReport(options, report);
}

} // unnamed namespace

int runReceive(const ReceiveOptions& options, StopSignal& stop)
{
    checkBaseDirectory();
    const std::unique_ptr<AudioOutput> output = openOutput(options, stop);
    writeReport(options, makeReport(options));

    ControlBell bell;
    const StopListener stopListener(stop, [&bell] { bell.ring(); });
    Recorder recorder(
        *output, {options.duration, options.oneshot}, miscUtils::getMonotonicSysclockTime(),
        [&bell] { bell.ring(); });
    ReceiverSession session(
        options.name, recorder.getQueue(),
        static_cast<TimeValue>(
            std::chrono::nanoseconds(options.stall.value_or(DefaultStall)).count()),
        [&bell] { bell.ring(); });

    int code = toInt(ExitCode::Done);
    try
    {
        code = ReceiveControl(options, bell, recorder, session, stop).run();
    }
    catch (const CommandFailure&)
    {
        endRecording(options, recorder, session);
        throw;
    }
    endRecording(options, recorder, session);
    return recorder.getState() == RecorderState::Failed ? toInt(ExitCode::Failed) : code;
}

} // namespace vlx::tool
