#include "Recorder.hpp"

#include <algorithm>
#include <filesystem>
#include <utility>

#include <nlohmann/json.hpp>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/RealTime.hpp>

#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/SenderReport.hpp"
#include "common/StopSignal.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

constexpr double NsPerSecond = 1e9;
// Several seconds of what a disk may have to catch up with, in frames of a millisecond or more.
constexpr StreamEventQueue::Limits QueueLimits = {.bytes = 64 << 20, .frames = 4096};
// Silence may exceed the time that has passed by what a sender may have fallen behind.
constexpr std::int64_t MaxEarlyNs = 10'000'000'000;
// After a stop, for silence, and for waiting frames of which some are lost anyway.
constexpr auto StopGrace = std::chrono::milliseconds(250);
constexpr std::chrono::milliseconds IdleInterval = std::chrono::hours(1); // nothing to look after
constexpr std::size_t SilenceBytes = 1 << 16;                             // written at once
constexpr std::uint8_t UnsignedSilence = 0x80;

std::string toSeconds(std::int64_t ns)
{
    return formatText("%.3f s", static_cast<double>(ns) / NsPerSecond);
}

std::string toCount(std::uint64_t count, const std::string& thing)
{
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

/// @return what the clock on the wall showed at a point of CLOCK_MONOTONIC
std::chrono::system_clock::time_point toWallTime(TimeValue time)
{
    const auto age = static_cast<std::int64_t>(miscUtils::getMonotonicSysclockTime() - time);
    return std::chrono::system_clock::now() -
           std::chrono::duration_cast<std::chrono::system_clock::duration>(
               std::chrono::nanoseconds(age));
}

} // unnamed namespace

Recorder::Recorder(const ReceiveOptions& options, const OutputWaits& waits, TimeValue startTime)
    : m_options(options),
      m_waits(waits),
      m_queue(QueueLimits),
      m_names(options),
      m_output(openFirstOutput()),
      m_waitBegin(startTime)
{
    const kit::RealTimeScope scope(options.play.empty() ? kit::RealTime() : options.realTime);
    m_thread = std::thread([this] { work(); });
}

Recorder::~Recorder()
{
    finish();
}

void Recorder::finish()
{
    m_queue.close();
    if (m_thread.joinable())
        m_thread.join();
}

/// Opened before there is a sender, so that an output that cannot be written is reported at once.
///
/// @return null if the first frame's time names it
std::unique_ptr<AudioOutput> Recorder::openFirstOutput()
{
    if (!m_options.namePattern)
        return openOutput();
    const std::string example = expandPattern(m_options.output, std::chrono::system_clock::now());
    if (example.empty())
        throw CommandFailure(ExitCode::Usage, "the pattern expands to an empty name");
    checkOutput(example, m_options.type);
    return nullptr;
}

std::unique_ptr<AudioOutput> Recorder::openOutput()
{
    if (!m_options.play.empty())
        return openPlayOutput(
            m_options.play, m_options.latency.value_or(DefaultLatency), m_waits.stop);
    const std::string path = m_names.getNext(toWallTime(m_time));
    const std::filesystem::path directory = std::filesystem::path(path).parent_path();
    std::error_code error; // opening the file will tell
    if (m_options.namePattern && !directory.empty())
        std::filesystem::create_directories(directory, error);
    auto output = tool::openOutput(path, m_options.type, m_options.overwrite, m_waits);
    m_files.push_back(path);
    return output;
}

void Recorder::work()
{
    const auto interval = m_options.play.empty() ? IdleInterval : WorkInterval;
    std::optional<StreamEvent> next;
    while (m_queue.pop(next, interval))
    {
        if (next)
            attempt([&] { std::visit([this](const auto& event) { handle(event); }, *next); });
        if (m_output && m_state != RecorderState::Failed)
            attempt([this] { m_output->work(); });
    }
    endConnection("stop", "stop", 0);
    attempt([this] { closeOutput(); });
}

/// Does a part of the work. The first failure ends the recording, and is said.
void Recorder::attempt(const std::function<void()>& work)
{
    try
    {
        work();
    }
    catch (const CommandFailure& failure)
    {
        if (m_state.exchange(RecorderState::Failed) != RecorderState::Failed)
            printError(failure.what());
    }
}

void Recorder::handle(const AnnouncedFormat& announced)
{
    if (m_state != RecorderState::Going)
        return;
    m_announced = announced;
    getConnection().announced = announced;
    const kit::StreamFormat& format = announced.format;
    if (!m_format && m_output)
        startOutput(format);
    else if (!m_format)
        m_nextFormat = format;
    else if (isNextOutputWanted(format))
        m_nextFormat = format;
    else if (*m_format == format)
        m_nextFormat.reset();
    else
        throw CommandFailure(
            ExitCode::Failed, "the stream's format changed from " + toText(*m_format) + " to " +
                                  toText(format) +
                                  ": the recording ends here; --split continues in a new file");
}

bool Recorder::isNextOutputWanted(const kit::StreamFormat& format) const
{
    const bool changes = *m_format != format;
    return m_options.split ? changes || m_place.sample > 0 : changes && !m_options.play.empty();
}

void Recorder::startOutput(const kit::StreamFormat& format)
{
    m_format = format;
    m_output->start(format);
}

/// Only with its first frame, so that no output is begun for a sequence that brings none.
void Recorder::continueInNextOutput()
{
    const kit::StreamFormat format = *std::exchange(m_nextFormat, std::nullopt);
    closeOutput();
    if (m_format)
    {
        m_closedNs += static_cast<std::int64_t>(m_format->toNanoseconds(m_place.sample));
        m_place = {m_place.file + 1, 0};
    }
    m_fillRestNs = 0;
    m_output = openOutput();
    startOutput(format);
}

void Recorder::closeOutput()
{
    if (!m_output)
        return;
    m_closedOutputs.push_back(std::move(m_output));
    m_closedOutputs.back()->finish();
    if (m_options.play.empty())
        m_closedOutputs.clear(); // files have nothing to add
}

void Recorder::handle(const ReceivedFrame& frame)
{
    if (m_state != RecorderState::Going || (!m_format && !m_nextFormat))
        return;
    m_time = frame.time;
    m_stallSaid = false;
    if (m_queue.getNumDropped() > 0 && isStopOverdue())
    {
        ++m_numCut;
        return;
    }
    const bool newOutput = m_nextFormat.has_value();
    if (newOutput)
        continueInNextOutput();
    sayPresence();
    if (m_numFrames == 0)
        m_firstTime = frame.time;
    else if (frame.gapNs > 0)
    {
        ++m_numGaps;
        m_gapNs = addLimited(m_gapNs, frame.gapNs);
        if (m_fills && !newOutput)
            fillGap(frame);
    }
    if (m_state != RecorderState::Going)
        return;

    const std::size_t sampleBytes = m_format->getBytesPerSample();
    const std::uint64_t samples =
        std::min<std::uint64_t>(frame.data.size() / sampleBytes, getSamplesLeft());
    if (samples > 0)
        continueWhenFull();
    getConnection().addFrame(frame, samples, m_place);
    complainIfOdd(frame);
    write(ByteView(frame.data).first(samples * sampleBytes), frame.localTime);
    ++m_numFrames;
    if (getSamplesLeft() == 0)
        m_state = RecorderState::Done;
}

void Recorder::sayPresence()
{
    if (getConnection().frames > 0)
        return;
    if (m_numFrames == 0)
        printNotice("receiving " + toText(*m_format));
    else if (std::exchange(m_absenceSaid, false))
        printNotice("the sender is back: " + toText(*m_format));
}

void Recorder::fillGap(const ReceivedFrame& frame)
{
    const auto passedNs = static_cast<std::int64_t>(frame.time - m_firstTime);
    if (frame.gapNs > passedNs + MaxEarlyNs - m_silenceNs)
    {
        m_unfilledNs = addLimited(m_unfilledNs, frame.gapNs);
        if (!std::exchange(m_unfilledSaid, true))
            printNotice(
                "timestamps jumped ahead by " + toSeconds(frame.gapNs) +
                ", far more than the time that has passed: the gap is not filled");
        return;
    }
    m_silenceNs += frame.gapNs;
    // Rounding may have filled a little more than was missing so far.
    const std::int64_t wantedNs = m_fillRestNs + frame.gapNs;
    const std::uint64_t wanted =
        m_format->toSamples(static_cast<TimeValue>(std::max<std::int64_t>(wantedNs, 0)));
    m_fillRestNs = wantedNs - static_cast<std::int64_t>(m_format->toNanoseconds(wanted));

    const bool isUnsigned = m_format->sampleFormat == audioUtils::PcmFormat::U8;
    const std::size_t sampleBytes = m_format->getBytesPerSample();
    const std::uint64_t samplesAtOnce = std::max<std::uint64_t>(SilenceBytes / sampleBytes, 1);
    const Buffer silence(samplesAtOnce * sampleBytes, isUnsigned ? UnsignedSilence : 0);
    std::uint64_t samples = 0;
    for (std::uint64_t rest = std::min(wanted, getSamplesLeft()); rest > 0; rest -= samples)
    {
        m_time = frame.time - m_format->toNanoseconds(rest);
        // What follows would stand in the wrong place.
        if (isStopOverdue())
        {
            m_state = RecorderState::Done;
            return;
        }
        samples = std::min(rest, samplesAtOnce);
        write(ByteView(silence).first(samples * sampleBytes), 0);
    }
    m_time = frame.time;
}

/// @return whether a stop has been waiting for the recorder for some time
bool Recorder::isStopOverdue()
{
    if (!m_waits.stop.isRequested())
        return false;
    const auto now = std::chrono::steady_clock::now();
    if (!m_graceEnd)
        m_graceEnd = now + StopGrace;
    return now >= *m_graceEnd;
}

void Recorder::write(const ByteView& bytes, TimeValue time)
{
    const std::size_t sampleBytes = m_format->getBytesPerSample();
    for (std::size_t place = 0; place < bytes.size();)
    {
        if (continueWhenFull() && place > 0)
            getConnection().continueIn(m_place, (bytes.size() - place) / sampleBytes, *m_format);
        const std::uint64_t samples =
            std::min<std::uint64_t>((bytes.size() - place) / sampleBytes, getSamplesLeftInFile());
        m_output->write(bytes.subspan(place, samples * sampleBytes), time);
        place += samples * sampleBytes;
        m_place.sample += samples;
        m_numSamples += samples;
        m_durationNs =
            m_closedNs + static_cast<std::int64_t>(m_format->toNanoseconds(m_place.sample));
    }
}

/// Begins another file in the place of one that has its length.
///
/// @return whether that was done
bool Recorder::continueWhenFull()
{
    if (getSamplesLeftInFile() > 0)
        return false;
    m_nextFormat = m_format;
    const std::int64_t fillRestNs = m_fillRestNs;
    continueInNextOutput();
    m_fillRestNs = fillRestNs;
    return true;
}

std::uint64_t Recorder::getSamplesLeftInFile() const
{
    if (!m_options.maxDuration)
        return UINT64_MAX;
    const auto length = static_cast<TimeValue>(m_options.maxDuration->count());
    const std::uint64_t limit = std::max<std::uint64_t>(m_format->toSamples(length), 1);
    return limit - std::min(limit, m_place.sample);
}

void Recorder::complainIfOdd(const ReceivedFrame& frame) const
{
    const std::size_t sampleBytes = m_format->getBytesPerSample();
    if (frame.data.size() % sampleBytes == 0 || m_connections.back().oddFrames != 1)
        return;
    printError(
        "a frame of " + std::to_string(frame.data.size()) + " bytes ends within a sample of " +
        std::to_string(sampleBytes) +
        " bytes: incomplete samples are dropped, and from here on only counted");
}

void Recorder::handle(const kit::ConsumerEvent& event)
{
    using Kind = kit::ConsumerEvent::Kind;
    if (event.kind == Kind::Joined)
    {
        endConnection("lost", "loss", event.time);
        getConnection();
        return;
    }
    const bool isLoss = event.kind == Kind::Lost;
    endConnection(isLoss ? "lost" : "stall", isLoss ? "loss" : "stall", event.time);
    if (m_state != RecorderState::Going)
        return;
    if (isLoss && m_options.oneshot && m_numFrames > 0)
        m_state = RecorderState::Done;
    // A sender that sends nothing for long stalls again and again.
    else if ((isLoss || !std::exchange(m_stallSaid, true)) && !std::exchange(m_absenceSaid, true))
        printNotice(event.text);
}

/// @return the present connection, which begins with whatever event comes first
ConnectionRecord& Recorder::getConnection()
{
    if (!std::exchange(m_connected, true))
        m_connections.push_back(
            {.joinedAfter = m_waitReason, .waitBegin = m_waitBegin, .announced = m_announced});
    return m_connections.back();
}

/// @param nextReason  what the next join time counts from
void Recorder::endConnection(const char* how, const char* nextReason, TimeValue time)
{
    if (!std::exchange(m_connected, false))
        return;
    m_connections.back().ended = how;
    m_waitReason = nextReason;
    m_waitBegin = time;
    if (m_connections.back().frames == 0)
    {
        m_connections.pop_back();
        ++m_emptyConnections;
    }
}

std::uint64_t Recorder::getSamplesLeft() const
{
    if (!m_options.duration)
        return UINT64_MAX;
    const std::int64_t restNs = m_options.duration->count() - m_closedNs;
    const auto limit =
        m_format->toSamples(static_cast<TimeValue>(std::max<std::int64_t>(restNs, 0)));
    return limit - std::min(limit, m_place.sample);
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
    if (m_numGaps > 0 && m_options.play.empty())
        text += m_fills ? ", filled with silence" : ", left out";
    if (m_unfilledNs > 0)
        text += ", except for " + toSeconds(m_unfilledNs);
    if (m_files.size() > 1)
        text += ", in " + toCount(m_files.size(), "file");
    if (const std::uint64_t lost = getNumLost(); lost > 0)
        text += "; " + toCount(lost, "frame") + " lost: the output was too slow";
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
    report["samples"] = m_numSamples.load();
    report["frames"] = m_numFrames.load();
    report["gaps"] = m_numGaps.load();
    report["gap_ns"] = m_gapNs;
    report["overflowed_frames"] = getNumLost();
    report["files"] = m_files;
    report["connections_without_frames"] = m_emptyConnections;
    for (const auto& output : m_closedOutputs)
        output->addToReport(report);
    nlohmann::ordered_json connections = nlohmann::ordered_json::array();
    for (const ConnectionRecord& connection : m_connections)
        connections.push_back(connection.toJson());
    report["reconnections"] = connections.empty() ? 0 : connections.size() - 1;
    report["connections"] = std::move(connections);
}

} // namespace vlx::tool
