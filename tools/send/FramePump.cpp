#include "FramePump.hpp"

#include <algorithm>
#include <utility>

#include <vlxkit/Producer.hpp>

#include "Playlist.hpp"
#include "SendCommand.hpp"
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
constexpr auto ReceiverCheckInterval = milliseconds(5);
// A jump of the clock is seen so soon, however long the frames are.
constexpr auto MaxSleep = milliseconds(100);
// How fast timestamps follow an input's own clock: twice what a bad crystal drifts.
constexpr std::int64_t SlopeDivisor = 1000;
// From how much on a report says that the timestamps do not follow from the sample count alone.
constexpr TimeValue ReportedSlopeNs = 500'000;

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
    kit::Producer& producer,
    PcmPayloader& payloader,
    Playlist& input,
    StreamClock& clock,
    const StopSignal& stop,
    SendReport& report,
    const SendOptions& options)
    : m_producer(producer),
      m_payloader(payloader),
      m_input(input),
      m_clock(clock),
      m_stop(stop),
      m_report(report),
      m_options(options)
{
}

void FramePump::run()
{
    takeFormat();
    if (!waitForReceivers(m_options.waitReceivers))
        return;
    while (!m_stop.isRequested())
    {
        const std::size_t numSamples = readFrame();
        if (numSamples == 0 && !changeFormat())
            return;
        if (numSamples == 0)
            continue;
        if (m_options.protocol == NanomsgProtocol::Pipeline && !waitForReceivers(1))
            return;
        announce();
        if (!waitUntilDue() || !sendFrame(numSamples))
            return;
        showProgress();
    }
}

/// @return whether they are there; otherwise a stop was asked for
bool FramePump::waitForReceivers(std::size_t count)
{
    const auto start = SteadyClock::now();
    while (count > 0 && (m_numReceivers = m_producer.checkReceivers()) < count)
    {
        const auto now = SteadyClock::now();
        const std::string joined =
            std::to_string(m_numReceivers) + " of " + std::to_string(count) + " receivers";
        if (m_options.timeout && now - start >= *m_options.timeout)
            throw CommandFailure(
                ExitCode::TimedOut, joined + " joined within " + toText(*m_options.timeout));
        printProgress("waiting: " + joined);
        if (m_stop.waitUntil(now + ReceiverCheckInterval))
            return false;
    }
    return !m_stop.isRequested();
}

void FramePump::takeFormat()
{
    m_format = m_input.getFormat();
    m_samplesOfFormat = 0;
    m_samplesPerFrame = std::max<std::uint64_t>(m_format.toSamples(toNs(*m_options.frame)), 1);
    if (m_options.duration)
        m_samplesLeft = m_format.toSamples(toNs(*m_options.duration) - m_nsOfFormerFormats);
}

/// Goes on with the next format, in a new sequence, its timestamps where the last ones ended.
bool FramePump::changeFormat()
{
    if (m_samplesLeft == 0U || !m_input.beginNextFormat())
        return false;
    const TimeValue end = getTimestamp();
    m_nsOfFormerFormats += m_format.toNanoseconds(m_samplesOfFormat);
    takeFormat();
    m_payloader.setNewFormat(m_format.rate, m_format.channels, m_format.sampleFormat);
    m_announceTime = SteadyClock::now();
    if (m_running)
        beginRun(end);
    return true;
}

std::size_t FramePump::readFrame()
{
    const std::size_t wanted =
        std::min<std::uint64_t>(m_samplesPerFrame, m_samplesLeft.value_or(m_samplesPerFrame));
    if (wanted == 0)
        return 0;
    const auto begin = SteadyClock::now();
    const std::size_t numSamples = m_input.read(m_frame, wanted);
    m_waitedForInput = m_input.isLive() && m_running && begin < getDueTime();
    return numSamples;
}

/// @return false at a stop
bool FramePump::waitUntilDue()
{
    if (!m_running)
        beginRun(m_clock.toStreamTime(SteadyClock::now()));
    while (true)
    {
        const auto now = SteadyClock::now();
        if (m_clock.update())
            beginRun(m_clock.toStreamTime(now));
        const auto due = std::max(getDueTime(), m_earliest);
        if (now >= due)
        {
            handleLateness(now);
            return !m_stop.isRequested();
        }
        if (m_stop.waitUntil(std::min(due, now + MaxSleep)))
            return false;
    }
}

void FramePump::handleLateness(SteadyTime now)
{
    const nanoseconds lateness = now - getDueTime();
    if (lateness > MaxLateness)
    {
        beginRun(m_clock.toStreamTime(now));
        m_announceTime = now + NewSequenceDelay;
    }
    else if (m_waitedForInput)
        followInput(lateness, now);
}

void FramePump::followInput(nanoseconds lateness, SteadyTime now)
{
    const nanoseconds limit = (now - m_lastSlope) / SlopeDivisor;
    const TimeValue move = toNs(std::clamp(lateness, nanoseconds::zero(), limit));
    m_lastSlope = now;
    m_runTimestamp += move;
    m_slope += move;
    if (m_slope >= ReportedSlopeNs)
        beginRun(getTimestamp());
}

void FramePump::beginRun(TimeValue timestamp)
{
    m_running = true;
    m_runTimestamp = timestamp;
    m_runSamples = 0;
    m_slope = 0;
    m_lastSlope = SteadyClock::now();
    m_report.beginRun(timestamp + toNs(*m_options.latency), m_format);
}

void FramePump::announce()
{
    if (!m_announceTime || SteadyClock::now() < *m_announceTime)
        return;
    m_announceTime.reset();
    m_producer.setFormat(m_payloader);
    m_earliest = SteadyClock::now() + *m_options.frame / 2;
}

bool FramePump::sendFrame(std::size_t numSamples)
{
    const TimeValue begin = getTimestamp();
    const TimeValue duration = getTimestamp(numSamples) - begin;
    if (!m_producer.send(begin + toNs(*m_options.latency), duration, m_frame))
        return false;
    m_earliest = SteadyClock::now() + nanoseconds(duration / 2);
    ++m_report.frames;
    m_report.samples += numSamples;
    m_runSamples += numSamples;
    m_samplesOfFormat += numSamples;
    if (m_samplesLeft)
        *m_samplesLeft -= numSamples;
    return true;
}

void FramePump::showProgress()
{
    const auto now = SteadyClock::now();
    if (now < m_nextProgress)
        return;
    m_nextProgress = now + ProgressInterval;
    // Only counts: a sequence that began right behind a frame could be lost to a busy receiver.
    m_numReceivers = m_producer.getStatistics().receivers;
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

FramePump::SteadyTime FramePump::getDueTime() const
{
    return m_clock.toLocalTime(getTimestamp());
}

/// @param numSamples  behind the next one
/// @return time on the stream's clock, without latency
TimeValue FramePump::getTimestamp(std::size_t numSamples) const
{
    return m_runTimestamp + m_format.toNanoseconds(m_runSamples + numSamples);
}

} // namespace vlx::tool
