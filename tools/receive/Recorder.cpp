#include "Recorder.hpp"

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/SenderReport.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

constexpr double NsPerSecond = 1e9;
// Several seconds of what a disk may have to catch up with.
constexpr std::size_t MaxQueuedBytes = 64 << 20;
// A gap may be longer than the time that has passed by what a sender may have fallen behind.
constexpr std::int64_t MaxEarlyNs = 10'000'000'000;
constexpr std::size_t SilenceBytes = 1 << 16; // written at once
constexpr std::uint8_t UnsignedSilence = 0x80;

std::string toSeconds(std::int64_t ns)
{
    return formatText("%.3f s", static_cast<double>(ns) / NsPerSecond);
}

std::string toCount(std::uint64_t count, const std::string& thing)
{
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

} // unnamed namespace

Recorder::Recorder(
    const RecorderSettings& settings,
    TimeValue startTime,
    std::function<void()> onChange)
    : m_settings(settings),
      m_onChange(std::move(onChange)),
      m_queue(MaxQueuedBytes),
      m_output(settings.openOutput(0)),
      m_waitBegin(startTime),
      m_thread([this] { loop(); })
{
}

Recorder::~Recorder()
{
    finish();
}

void Recorder::finish()
{
    if (!m_thread.joinable())
        return;
    m_queue.close();
    m_thread.join();
    closeOutput();
}

void Recorder::loop()
{
    while (std::optional<StreamEvent> event = m_queue.pop())
    {
        handle(*event);
        if (event->kind == StreamEvent::Kind::Frame)
            m_queue.recycle(std::move(event->data));
    }
}

void Recorder::handle(const StreamEvent& event)
{
    switch (event.kind)
    {
    case StreamEvent::Kind::Joined:
        m_connections.emplace_back(m_waitReason, m_waitBegin);
        m_connected = true;
        break;
    case StreamEvent::Kind::Format:
        handleFormat(event);
        break;
    case StreamEvent::Kind::Frame:
        handleFrame(event);
        break;
    case StreamEvent::Kind::Ended:
        handleEnded(event);
        break;
    }
}

void Recorder::handleFormat(const StreamEvent& event)
{
    if (m_state != RecorderState::Going)
        return;
    m_connections.back().setFormat(event.format, event.clock);
    const bool changed = m_format && *m_format != event.format;
    if (!m_format)
        startOutput(event.format);
    else if (m_settings.formatChange == FormatChange::Split && m_place.sample > 0)
        m_nextFormat = event.format;
    else if (changed && m_settings.formatChange == FormatChange::Restart)
        m_nextFormat = event.format;
    else if (changed && m_settings.formatChange == FormatChange::Refuse)
        fail(
            "the stream's format has changed from " + toText(*m_format) + " to " +
            toText(event.format) + "; the recording ends here (--split goes on in another file)");
    else
        m_nextFormat.reset();
}

bool Recorder::startOutput(const kit::StreamFormat& format)
{
    m_format = format;
    if (!m_output->start(format))
        fail(m_output->getProblem());
    return m_state == RecorderState::Going;
}

/// Only with its first frame, so that no output is begun for a sequence that brings none.
bool Recorder::continueInNextOutput()
{
    const kit::StreamFormat format = *std::exchange(m_nextFormat, std::nullopt);
    closeOutput();
    if (m_state != RecorderState::Going)
        return false;
    m_closedNs += static_cast<std::int64_t>(m_format->toNanoseconds(m_place.sample));
    m_place = {m_place.file + 1, 0};
    m_fillRestNs = 0;
    try
    {
        m_output = m_settings.openOutput(m_place.file);
    }
    catch (const CommandFailure& failure)
    {
        fail(failure.what());
        return false;
    }
    return startOutput(format);
}

void Recorder::closeOutput()
{
    if (!m_output)
        return;
    if (!m_output->finish() && m_state != RecorderState::Failed)
        fail(m_output->getProblem());
    m_closedOutputs.push_back(std::move(m_output));
}

void Recorder::handleFrame(const StreamEvent& event)
{
    if (m_state != RecorderState::Going)
        return;
    const bool newOutput = m_nextFormat.has_value();
    if (newOutput && !continueInNextOutput())
        return;
    sayPresence();
    if (event.gapNs > 0 && m_numFrames > 0)
    {
        ++m_numGaps;
        m_gapNs += event.gapNs;
        if (m_settings.fill && !newOutput && !fillGap(event))
            return;
    }
    m_lastTime = event.time;

    const std::size_t sampleBytes = m_format->getBytesPerSample();
    const std::uint64_t samples =
        std::min<std::uint64_t>(event.data.size() / sampleBytes, getSamplesLeft());
    m_connections.back().addFrame(event, samples, m_place);
    complainIfOdd(event);
    if (!write(ByteView(event.data).first(samples * sampleBytes), event.localTime))
        return;
    ++m_numFrames;
    if (getSamplesLeft() == 0)
        setState(RecorderState::Done);
}

void Recorder::sayPresence()
{
    if (m_connections.back().getNumFrames() > 0)
        return;
    if (m_numFrames == 0)
        printNotice("receiving " + toText(*m_format));
    else if (std::exchange(m_absenceSaid, false))
        printNotice("the sender is back: " + toText(*m_format));
}

bool Recorder::fillGap(const StreamEvent& event)
{
    if (event.gapNs > static_cast<std::int64_t>(event.time - m_lastTime) + MaxEarlyNs)
    {
        if (!std::exchange(m_unfilledSaid, true))
            printNotice(
                "the timestamps jump by " + toSeconds(event.gapNs) +
                ", more than has passed: not filled");
        return true;
    }
    const auto wantedNs = static_cast<TimeValue>(m_fillRestNs + event.gapNs);
    const std::uint64_t wanted = m_format->toSamples(wantedNs);
    m_fillRestNs = static_cast<std::int64_t>(wantedNs - m_format->toNanoseconds(wanted));

    const bool isUnsigned = m_format->sampleFormat == audioUtils::PcmFormat::U8;
    const std::size_t sampleBytes = m_format->getBytesPerSample();
    const std::uint64_t samplesAtOnce = std::max<std::uint64_t>(SilenceBytes / sampleBytes, 1);
    const Buffer silence(samplesAtOnce * sampleBytes, isUnsigned ? UnsignedSilence : 0);
    std::uint64_t rest = std::min(wanted, getSamplesLeft());
    while (rest > 0)
    {
        const std::uint64_t samples = std::min(rest, samplesAtOnce);
        if (!write(ByteView(silence).first(samples * sampleBytes), 0))
            return false;
        rest -= samples;
    }
    return true;
}

bool Recorder::write(const ByteView& bytes, TimeValue time)
{
    if (bytes.empty())
        return true;
    if (!m_output->write(bytes, time))
    {
        fail(m_output->getProblem());
        return false;
    }
    const std::uint64_t samples = bytes.size() / m_format->getBytesPerSample();
    m_place.sample += samples;
    m_numSamples += samples;
    m_durationNs = m_closedNs + static_cast<std::int64_t>(m_format->toNanoseconds(m_place.sample));
    return true;
}

void Recorder::complainIfOdd(const StreamEvent& frame) const
{
    const std::size_t sampleBytes = m_format->getBytesPerSample();
    if (frame.data.size() % sampleBytes == 0 || m_connections.back().getNumOddFrames() != 1)
        return;
    printError(
        "a frame of " + std::to_string(frame.data.size()) + " bytes ends inside a sample of " +
        std::to_string(sampleBytes) +
        " bytes: the incomplete sample is left out; further ones are only counted");
}

void Recorder::handleEnded(const StreamEvent& event)
{
    if (m_connected)
    {
        m_connections.back().end(event.reason);
        m_waitReason = event.reason == EndReason::Stall ? "stall" : "loss";
        m_waitBegin = event.time;
        if (m_connections.back().getNumFrames() == 0)
        {
            m_connections.pop_back();
            ++m_emptyConnections;
        }
    }
    m_connected = false;
    if (m_state != RecorderState::Going || event.reason == EndReason::Stop)
        return;
    if (event.reason == EndReason::Lost && m_settings.oneshot && m_numFrames > 0)
    {
        setState(RecorderState::Done);
        return;
    }
    // A sender that sends nothing for long stalls again and again.
    if (event.reason == EndReason::Stall && std::exchange(m_stallSaid, true))
        return;
    if (!std::exchange(m_absenceSaid, true))
        printNotice(event.text);
}

std::uint64_t Recorder::getSamplesLeft() const
{
    if (!m_settings.maxDuration)
        return UINT64_MAX;
    const std::int64_t restNs = m_settings.maxDuration->count() - m_closedNs;
    const auto limit =
        m_format->toSamples(static_cast<TimeValue>(std::max<std::int64_t>(restNs, 0)));
    return limit - std::min(limit, m_place.sample);
}

void Recorder::fail(const std::string& problem)
{
    printError(problem);
    setState(RecorderState::Failed);
}

void Recorder::setState(RecorderState state)
{
    m_state = state;
    m_onChange();
}

std::string Recorder::describeProgress() const
{
    if (m_numFrames == 0)
        return "waiting for the sender";
    return toSeconds(m_durationNs) + " received in " + toCount(m_numFrames, "frame") +
           (m_numGaps == 0 ? "" : ", " + toCount(m_numGaps, "gap"));
}

std::string Recorder::summarize() const
{
    std::string text = describeProgress();
    if (m_numGaps > 0)
        text += " of " + toSeconds(m_gapNs) + " in all";
    if (m_numGaps > 0 && m_settings.formatChange != FormatChange::Restart)
        text += m_settings.fill ? ", filled with silence" : ", left out";
    if (m_place.file > 0 && m_settings.formatChange == FormatChange::Split)
        text += ", in " + toCount(m_place.file + 1, "file");
    if (m_queue.getNumDropped() > 0)
        text += "; " + toCount(m_queue.getNumDropped(), "frame") + " lost: the output was too slow";
    for (const auto& output : m_closedOutputs)
    {
        const std::string faults = output->describeFaults();
        text += faults.empty() ? "" : "; " + faults;
    }
    return text;
}

void Recorder::addToReport(nlohmann::ordered_json& report) const
{
    if (m_format)
        addFormat(report, *m_format);
    report["samples"] = m_numSamples;
    report["frames"] = m_numFrames.load();
    report["gaps"] = m_numGaps.load();
    report["gap_ns"] = m_gapNs;
    report["overflowed_frames"] = m_queue.getNumDropped();
    report["connections_without_frames"] = m_emptyConnections;
    for (const auto& output : m_closedOutputs)
        output->addToReport(report);
    nlohmann::ordered_json connections = nlohmann::ordered_json::array();
    for (const ConnectionRecord& connection : m_connections)
    {
        if (connection.getNumFrames() > 0)
            connections.push_back(connection.toJson());
    }
    report["reconnections"] = connections.empty() ? 0 : connections.size() - 1;
    report["connections"] = std::move(connections);
}

} // namespace vlx::tool
