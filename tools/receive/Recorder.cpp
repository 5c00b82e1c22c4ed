#include "Recorder.hpp"

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

#include "common/Messages.hpp"

namespace vlx::tool
{

namespace
{

// Several seconds of what a disk may have to catch up with.
constexpr std::size_t MaxQueuedBytes = 64 << 20;

} // unnamed namespace

Recorder::Recorder(
    AudioOutput& output,
    const RecorderSettings& settings,
    TimeValue startTime,
    std::function<void()> onChange)
    : m_output(output),
      m_settings(settings),
      m_onChange(std::move(onChange)),
      m_queue(MaxQueuedBytes),
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
    if (!m_output.finish() && m_state != RecorderState::Failed)
        fail(m_output.getProblem());
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
        handleJoined();
        break;
    case StreamEvent::Kind::Sequence:
        handleSequence(event);
        break;
    case StreamEvent::Kind::Frame:
        handleFrame(event);
        break;
    case StreamEvent::Kind::Ended:
        handleEnded(event);
        break;
    }
}

void Recorder::handleJoined()
{
    m_connections.emplace_back(m_waitReason, m_waitBegin);
    m_connected = true;
}

void Recorder::handleSequence(const StreamEvent& event)
{
    if (m_state != RecorderState::Going)
        return;
    if (m_format && *m_format != event.format)
    {
        fail(
            "the stream's format has changed from " + toText(*m_format) + " to " +
            toText(event.format) + "; the recording ends here");
        return;
    }
    m_connections.back().setFormat(event.format, event.clock);
    if (m_format)
        return;
    m_format = event.format;
    if (!m_output.start(event.format))
        fail(m_output.getProblem());
}

void Recorder::handleFrame(const StreamEvent& event)
{
    if (m_state != RecorderState::Going)
        return;

    const std::size_t sampleBytes = m_format->getBytesPerSample();
    const std::uint64_t samples =
        std::min<std::uint64_t>(event.data.size() / sampleBytes, getSamplesLeft());
    m_connections.back().addFrame(event, samples, m_numSamples);
    complainIfOdd(event);
    if (!m_output.write(ByteView(event.data).first(samples * sampleBytes)))
    {
        fail(m_output.getProblem());
        return;
    }
    ++m_numFrames;
    m_numSamples += samples;
    m_durationNs = static_cast<std::int64_t>(m_format->toNanoseconds(m_numSamples));
    if (getSamplesLeft() == 0)
        setState(RecorderState::Done);
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
    if (!m_connected)
        return;
    m_connected = false;
    m_connections.back().end(event.reason);
    if (m_connections.back().getNumFrames() == 0)
    {
        m_connections.pop_back();
        ++m_emptyConnections;
        return;
    }

    m_waitReason = event.reason == EndReason::Stall ? "stall" : "loss";
    m_waitBegin = event.time;
    if (event.reason != EndReason::Lost || m_state != RecorderState::Going)
        return;
    if (m_settings.oneshot)
        setState(RecorderState::Done);
    else
        printNotice("the sender has gone; waiting for it to come back");
}

std::uint64_t Recorder::getSamplesLeft() const
{
    if (!m_settings.maxDuration)
        return UINT64_MAX;
    const auto limit = m_format->toSamples(static_cast<TimeValue>(m_settings.maxDuration->count()));
    return limit - std::min(limit, m_numSamples);
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

void Recorder::addToReport(nlohmann::ordered_json& report) const
{
    if (m_format)
    {
        report["sample_format"] = audioUtils::toString(m_format->sampleFormat);
        report["sample_rate"] = m_format->rate;
        report["channels"] = m_format->channels;
    }
    report["samples"] = m_numSamples;
    report["frames"] = m_numFrames.load();
    report["overflowed_frames"] = m_queue.getNumDropped();
    report["connections_without_frames"] = m_emptyConnections;
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
