#include "FramePump.hpp"

#include <algorithm>
#include <limits>
#include <stop_token>

#include "Playlist.hpp"
#include "SendOptions.hpp"
#include "StreamClock.hpp"
#include "audio/PcmCodec.hpp"
#include "common/Duration.hpp"
#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/StopSignal.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr auto MaxLateness = milliseconds(500);
constexpr auto NewSequenceDelay = std::chrono::seconds(1);
constexpr auto ProgressInterval = milliseconds(200);
// A jump of the clock is seen so soon, however long the frames are.
constexpr auto MaxSleep = milliseconds(100);
// How far back a new run may begin, for samples that were taken while nothing was sent.
constexpr auto MaxBacklog = MaxLateness / 2;

TimeValue toNs(nanoseconds duration)
{
    return static_cast<TimeValue>(duration.count());
}

std::string toClockText(TimeValue ns)
{
    constexpr TimeValue Tenth = 100'000'000;
    constexpr TimeValue TenthsPerMinute = 600;
    const TimeValue tenths = ns / Tenth;
    return formatText(
        "%llu:%04.1f", static_cast<unsigned long long>(tenths / TenthsPerMinute),
        static_cast<double>(tenths % TenthsPerMinute) / 10);
}

} // unnamed namespace

FramePump::FramePump(
    const SendOptions& options,
    Playlist& input,
    StreamClock& clock,
    const StopSignal& stop,
    SendReport& report)
    : m_options(options),
      m_input(input),
      m_clock(clock),
      m_stop(stop),
      m_report(report),
      m_producer(
          {.name = options.name,
           .protocol = options.protocol,
           .clock = clock.getProtocol(),
           .clockAddress = clock.getAddress(),
           .clockPort = clock.getPort(),
           .socketMode = options.socketMode,
           .realTime = options.realTime,
           .sharedMemory = {.carriage = options.carriage, .frameDuration = *options.frame},
           .onNotice = printNotice,
           .onReceivers = [this](std::size_t count)
           {
               m_numReceivers = count;
               showWaiting();
           }})
{
}

void FramePump::run()
{
    // Frees a pipeline send that waits for its receiver.
    const std::stop_callback freeSends(m_stop.getToken(), [this] { m_producer.stop(); });
    takeFormat();
    if (!check(m_producer.open(m_format)))
        return;
    const kit::RealTimeScope realTime(m_options.realTime);
    m_pace = kit::Pace(m_format.rate);
    if (waitForReceivers(m_options.waitReceivers))
        sendFrames();
    finishProgress(m_report.frames > 0 ? describeProgress() : std::string());
    m_producer.close();
}

/// @return true on success, false after a stop
/// @throws CommandFailure after any other failure
bool FramePump::check(const kit::Status& status) const
{
    if (!status && !m_stop.isRequested())
        throw CommandFailure(ExitCode::Failed, status.getText());
    return static_cast<bool>(status);
}

void FramePump::sendFrames()
{
    while (!m_stop.isRequested())
    {
        const std::size_t numSamples = readFrame();
        if (numSamples == 0 && !changeFormat())
            return;
        if (numSamples == 0)
            continue;
        if (m_options.protocol == NanomsgProtocol::Pipeline && m_producer.checkReceivers() == 0 &&
            !waitForReceivers(1))
            return;
        announceIfDue();
        if (!waitUntilDue() || !sendFrame(numSamples))
            return;
        showProgress();
    }
}

/// @return true if they have joined, false after a stop
bool FramePump::waitForReceivers(std::size_t count)
{
    m_numAwaited = count;
    showWaiting();
    const kit::Status status =
        m_producer.waitForReceivers(count, m_options.timeout.value_or(nanoseconds(-1)));
    if (status.getCode() == kit::ErrorCode::TimedOut)
        throw CommandFailure(
            ExitCode::TimedOut, std::to_string(m_numReceivers) + " of " + std::to_string(count) +
                                    " receivers joined within " + toText(*m_options.timeout));
    m_numAwaited = 0;
    return check(status);
}

void FramePump::showWaiting() const
{
    if (m_numAwaited > 0)
        printProgress(
            "waiting: " + std::to_string(m_numReceivers) + " of " + std::to_string(m_numAwaited) +
            " receivers");
}

void FramePump::takeFormat()
{
    m_format = m_input.getFormat();
    m_samplesOfFormat = 0;
    m_samplesPerFrame = std::max<std::uint64_t>(m_format.toSamples(toNs(*m_options.frame)), 1);
}

/// Goes on with the next format, in a new sequence, its timestamps where the last ones ended.
bool FramePump::changeFormat()
{
    if (getSamplesLeft() == 0 || !m_input.beginNextFormat())
        return false;
    m_nsOfFormerFormats += m_format.toNanoseconds(m_samplesOfFormat);
    takeFormat();
    if (!check(m_producer.setFormat(m_format)))
        return false;
    m_pace.changeRate(m_format.rate);
    holdFrame();
    if (m_running)
        reportRun();
    return true;
}

std::size_t FramePump::readFrame()
{
    const std::size_t wanted = std::min<std::uint64_t>(m_samplesPerFrame, getSamplesLeft());
    if (wanted == 0)
        return 0;
    while (m_input.isLive() && m_input.getNumWaiting() < wanted && takeInput({}))
    {
    }
    m_samplesInHand = m_input.read(m_frame, wanted);
    return m_samplesInHand;
}

/// @return samples of this format until the limit
std::uint64_t FramePump::getSamplesLeft() const
{
    if (!m_options.duration)
        return std::numeric_limits<std::uint64_t>::max();
    return m_format.toSamples(toNs(*m_options.duration) - m_nsOfFormerFormats) - m_samplesOfFormat;
}

/// Waits for more of a live input.
///
/// @return whether something came
bool FramePump::takeInput(const Deadline& deadline)
{
    const std::uint64_t samplesBefore = m_samplesInHand + m_input.getNumWaiting();
    switch (m_input.takeIn(deadline))
    {
    case InputArrival::Some:
        if (m_running)
            m_pace.observeInput(samplesBefore, m_samplesPerFrame, getStreamTime());
        return true;
    case InputArrival::Full:
        m_pace.observeBacklog();
        return false;
    case InputArrival::Nothing:
        break;
    }
    return false;
}

/// @return false at a stop
bool FramePump::waitUntilDue()
{
    if (!m_running)
        beginRun(SteadyClock::now());
    while (true)
    {
        const auto now = SteadyClock::now();
        if (m_clock.update())
            beginRun(now);
        const auto due = m_clock.toLocalTime(m_pace.getDueTime());
        if (now >= due)
        {
            handleLateness(now);
            return !m_stop.isRequested();
        }
        const auto end = std::min(due, now + MaxSleep);
        if (!(m_input.isLive() && takeInput(end)) && m_stop.waitUntil(end))
            return false;
    }
}

void FramePump::handleLateness(SteadyTime now)
{
    if (now - m_clock.toLocalTime(m_pace.getTimestamp()) <= MaxLateness)
        return;
    beginRun(now);
    m_announceTime = now + NewSequenceDelay;
}

void FramePump::beginRun(SteadyTime now)
{
    m_running = true;
    TimeValue timestamp = m_clock.toStreamTime(now);
    if (m_input.isLive())
        timestamp += kit::Pace::Margin;
    if (m_pace.isFollowing()) // the samples in hand were taken while nothing was sent
        timestamp -= std::min(m_format.toNanoseconds(m_input.getNumWaiting()), toNs(MaxBacklog));
    m_pace.begin(timestamp);
    reportRun();
}

void FramePump::reportRun()
{
    m_report.beginRun(
        m_pace.getTimestamp() + toNs(*m_options.latency), m_format, m_pace.getSpeedPpm());
}

void FramePump::announceIfDue()
{
    if (!m_announceTime || SteadyClock::now() < *m_announceTime)
        return;
    m_announceTime.reset();
    static_cast<void>(m_producer.announce()); // a stop ends the next send too
    holdFrame();
}

/// Leaves receivers time to take a new sequence before the next frame.
void FramePump::holdFrame()
{
    m_pace.holdUntil(getStreamTime() + toNs(*m_options.frame) / 2);
}

bool FramePump::sendFrame(std::size_t numSamples)
{
    const TimeValue timestamp = m_pace.getTimestamp() + toNs(*m_options.latency);
    if (!m_report.isInRun(timestamp))
        reportRun();
    if (!m_producer.send(timestamp, m_pace.getDuration(numSamples), m_frame))
        return false;
    m_pace.advance(numSamples, getStreamTime());
    m_samplesInHand = 0;
    ++m_report.frames;
    m_report.samples += numSamples;
    m_report.speedPpm = m_pace.getSpeedPpm();
    m_samplesOfFormat += numSamples;
    return true;
}

void FramePump::showProgress()
{
    const auto now = SteadyClock::now();
    if (now < m_nextProgress)
        return;
    m_nextProgress = now + ProgressInterval;
    printProgress(describeProgress());
}

std::string FramePump::describeProgress() const
{
    const auto length = m_input.getLength();
    const bool isFile = length.has_value();
    std::string text = m_input.getPlace();
    text += toClockText(
        isFile ? m_format.toNanoseconds(m_input.getPosition())
               : m_nsOfFormerFormats + m_format.toNanoseconds(m_samplesOfFormat));
    if (isFile)
        text += " of " + toClockText(m_format.toNanoseconds(*length));
    else if (m_options.duration)
        text += " of " + toClockText(toNs(*m_options.duration));

    return text + formatText(
                      "  %llu frames  receivers: %zu  peak: %.1f dBFS",
                      static_cast<unsigned long long>(m_report.frames), m_numReceivers,
                      toDecibels(measurePeak(m_frame, m_format.sampleFormat)));
}

TimeValue FramePump::getStreamTime() const
{
    return m_clock.toStreamTime(SteadyClock::now());
}

} // namespace vlx::tool
