#include "FramePump.hpp"

#include <algorithm>
#include <cstdio>
#include <utility>

#include <SequenceAnnouncer.hpp>

#include <vlx/VlxSender.hpp>

#include "StreamClock.hpp"
#include "audio/AudioInput.hpp"
#include "common/Messages.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

using SteadyClock = std::chrono::steady_clock;

constexpr auto MaxLateness = std::chrono::milliseconds(500);
constexpr auto NewSequenceDelay = std::chrono::seconds(1);
constexpr auto ProgressInterval = std::chrono::milliseconds(200);

} // unnamed namespace

FramePump::FramePump(
    Sender& sender,
    kit::SequenceAnnouncer& announcer,
    AudioInput& input,
    const StreamClock& clock,
    StopSignal& stop,
    SendReport& report,
    std::function<void()> onRunBegins)
    : m_sender(sender),
      m_announcer(announcer),
      m_input(input),
      m_clock(clock),
      m_stop(stop),
      m_report(report),
      m_onRunBegins(std::move(onRunBegins))
{
}

void FramePump::run(const PumpSettings& settings)
{
    while (!m_stop.isRequested())
    {
        const std::size_t numSamples = readFrame(settings);
        if (numSamples == 0 || !waitForDeadline())
            return;
        announce();
        sendFrame(numSamples);
        showProgress();
    }
}

std::size_t FramePump::readFrame(const PumpSettings& settings)
{
    std::size_t wanted = settings.samplesPerFrame;
    if (settings.maxSamples)
        wanted = std::min<std::uint64_t>(wanted, *settings.maxSamples - m_report.samples);
    if (wanted == 0)
        return 0;

    std::size_t numSamples = m_input.read(m_frame, wanted);
    if (numSamples == 0 && settings.loop && m_input.getProblem().empty() && m_input.rewind())
        numSamples = m_input.read(m_frame, wanted);
    return numSamples;
}

bool FramePump::waitForDeadline()
{
    if (m_report.runs.empty())
    {
        beginRun(SteadyClock::now());
        return !m_stop.isRequested();
    }

    const auto deadline =
        m_runStart + std::chrono::nanoseconds(m_report.format.toNanoseconds(getSamplesInRun()));
    if (m_stop.waitUntil(deadline))
        return false;
    const auto now = SteadyClock::now();
    if (now - deadline > MaxLateness)
    {
        beginRun(now);
        m_newSequenceTime = now + NewSequenceDelay;
    }
    return true;
}

void FramePump::beginRun(SteadyClock::time_point now)
{
    m_runStart = now;
    m_report.runs.push_back({m_report.samples, m_clock.getTime()});
    m_onRunBegins();
}

void FramePump::announce()
{
    m_numReceivers = m_announcer.checkReceivers();
    if (!m_newSequenceTime || SteadyClock::now() < *m_newSequenceTime)
        return;
    m_newSequenceTime.reset();
    m_announcer.announce();
}

void FramePump::sendFrame(std::size_t numSamples)
{
    const TimeValue base = m_report.runs.back().timestamp;
    const std::uint64_t first = getSamplesInRun();
    const TimeValue begin = base + m_report.format.toNanoseconds(first);
    const TimeValue end = base + m_report.format.toNanoseconds(first + numSamples);
    m_sender.sendMediaData(begin, end - begin, m_frame);
    ++m_report.frames;
    m_report.samples += numSamples;
}

void FramePump::showProgress()
{
    const auto now = SteadyClock::now();
    if (now < m_nextProgress)
        return;
    m_nextProgress = now + ProgressInterval;

    const double seconds = static_cast<double>(m_report.samples) / m_report.format.rate;
    char text[128];
    std::snprintf(
        text, sizeof(text), "%.1f s sent in %llu frames, receivers: %zu", seconds,
        static_cast<unsigned long long>(m_report.frames), m_numReceivers);
    printProgress(text);
}

std::uint64_t FramePump::getSamplesInRun() const
{
    return m_report.samples - m_report.runs.back().sample;
}

} // namespace vlx::tool
