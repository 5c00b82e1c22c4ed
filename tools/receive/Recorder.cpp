#include "Recorder.hpp"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include <nlohmann/json.hpp>

#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/SenderReport.hpp"
#include "common/StopSignal.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

// Silence may exceed the time that has passed by what a sender may have fallen behind.
constexpr std::int64_t MaxEarlyNs = 10'000'000'000;
// After a stop, for silence, and for waiting frames of which some are lost anyway.
constexpr auto StopGrace = std::chrono::milliseconds(250);
constexpr std::size_t SilenceBytes = 1 << 16; // written at once
constexpr std::uint8_t UnsignedSilence = 0x80;

std::string toSeconds(std::int64_t ns)
{
    constexpr double NsPerSecond = 1e9;
    return formatText("%.3f s", static_cast<double>(ns) / NsPerSecond);
}

std::string toCount(std::uint64_t count, const std::string& thing)
{
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

} // unnamed namespace

TimeValue PlayClock::get(const kit::ReceivedFrame& frame)
{
    constexpr std::int64_t MaxJitterNs = 50'000'000;
    constexpr std::int64_t SmoothingFrames = 64;
    const TimeValue time = frame.clockOffsetNs ? frame.timestamp : m_received;
    const TimeValue onMonotonic = frame.getMonotonicTime().value_or(frame.arrival);
    m_received += frame.duration;
    // However the measurement jitters, frames that continue one another are played so.
    const auto change = static_cast<std::int64_t>(onMonotonic - time) - m_offset;
    const bool jumps = frame.isFirst || std::abs(change) > MaxJitterNs;
    m_offset += jumps ? change : change / SmoothingFrames;
    return time + static_cast<TimeValue>(m_offset);
}

Recorder::Recorder(const RecordingOptions& options, const OutputWaits& waits, TimeValue startTime)
    : m_options(options), m_stop(waits.stop), m_outputs(options, waits), m_waitBegin(startTime)
{
}

void Recorder::finish()
{
    endConnection("stop", 0);
    m_outputs.finish();
}

void Recorder::add(const kit::StreamFormat& format)
{
    if (m_isDone)
        return;
    if (m_outputs.isWaiting())
        m_outputs.begin(format, 0);
    // Only with its first frame, so that no output is begun for a sequence that brings none.
    else if (!m_outputs.getFormat() || isNextOutputWanted(format))
        m_nextFormat = format;
    else if (*m_outputs.getFormat() == format)
        m_nextFormat.reset();
    else
        throw CommandFailure(
            ExitCode::Failed, "the stream's format changed from " + toText(*m_outputs.getFormat()) +
                                  " to " + toText(format) +
                                  ": the recording ends here; --split continues in a new file");
}

bool Recorder::isNextOutputWanted(const kit::StreamFormat& format) const
{
    const bool changes = *m_outputs.getFormat() != format;
    return m_options.split ? changes || m_outputs.getPlace().sample > 0
                           : changes && !m_options.play.empty();
}

void Recorder::add(const kit::ReceivedFrame& frame)
{
    if (m_isDone || (!m_outputs.getFormat() && !m_nextFormat))
        return;
    m_stallSaid = false;
    m_numLost += frame.numDropped;
    if (m_numLost > 0 && isStopOverdue())
    {
        ++m_numLost;
        return;
    }
    const bool isNewOutput = m_nextFormat.has_value();
    if (isNewOutput)
    {
        m_outputs.begin(*std::exchange(m_nextFormat, std::nullopt), frame.arrival);
        m_fillRestNs = 0;
    }
    sayPresence();
    if (m_numFrames == 0)
        m_firstArrival = frame.arrival;
    else if (frame.gapNs > 0)
    {
        ++m_numGaps;
        m_gapNs = addLimited(m_gapNs, frame.gapNs);
        if (m_fills && !isNewOutput)
            fillGap(frame);
    }
    if (m_isDone)
        return;
    write(frame);
    ++m_numFrames;
    m_isDone = m_outputs.getSamplesLeft() == 0;
}

void Recorder::sayPresence()
{
    if (getConnection().frames > 0)
        return;
    const bool wasAbsent = std::exchange(m_absenceSaid, false);
    if (m_numFrames == 0)
        printNotice("receiving " + toText(*m_outputs.getFormat()));
    else if (wasAbsent)
        printNotice("the sender is back: " + toText(*m_outputs.getFormat()));
}

void Recorder::fillGap(const kit::ReceivedFrame& frame)
{
    const kit::StreamFormat format = *m_outputs.getFormat();
    const auto passedNs = static_cast<std::int64_t>(frame.arrival - m_firstArrival);
    if (frame.gapNs > passedNs + MaxEarlyNs - m_silenceNs)
    {
        if (std::exchange(m_unfilledNs, addLimited(m_unfilledNs, frame.gapNs)) == 0)
            printNotice(
                "timestamps jumped ahead by " + toSeconds(frame.gapNs) +
                ", far more than the time that has passed: the gap is not filled");
        return;
    }
    m_silenceNs += frame.gapNs;
    // Rounding may have filled a little more than was missing so far.
    const std::int64_t wantedNs = m_fillRestNs + frame.gapNs;
    const std::uint64_t wanted =
        format.toSamples(static_cast<TimeValue>(std::max<std::int64_t>(wantedNs, 0)));
    m_fillRestNs = wantedNs - static_cast<std::int64_t>(format.toNanoseconds(wanted));

    const bool isUnsigned = format.sampleFormat == audioUtils::PcmFormat::U8;
    const std::size_t sampleBytes = format.getBytesPerSample();
    const std::uint64_t samplesAtOnce = std::max<std::uint64_t>(SilenceBytes / sampleBytes, 1);
    const Buffer silence(samplesAtOnce * sampleBytes, isUnsigned ? UnsignedSilence : 0);
    for (std::uint64_t rest = std::min(wanted, m_outputs.getSamplesLeft()); rest > 0;)
    {
        // What follows would stand in the wrong place.
        if (isStopOverdue())
        {
            m_isDone = true;
            return;
        }
        rest -= m_outputs.write(
            ByteView(silence).first(std::min(rest, samplesAtOnce) * sampleBytes),
            frame.arrival - format.toNanoseconds(rest), 0);
    }
}

/// @return whether a stop has been waiting for the recorder for some time
bool Recorder::isStopOverdue()
{
    if (!m_stop.isRequested())
        return false;
    const auto now = std::chrono::steady_clock::now();
    if (!m_graceEnd)
        m_graceEnd = now + StopGrace;
    return now >= *m_graceEnd;
}

void Recorder::write(const kit::ReceivedFrame& frame)
{
    const kit::StreamFormat format = *m_outputs.getFormat();
    const std::size_t sampleBytes = format.getBytesPerSample();
    ConnectionRecord& connection = getConnection();
    const bool isNew = connection.addFrame(frame);
    if (frame.data.size() % sampleBytes != 0 && ++connection.oddFrames == 1)
        printError(
            "a frame of " + std::to_string(frame.data.size()) + " bytes ends within a sample of " +
            std::to_string(sampleBytes) +
            " bytes: incomplete samples are dropped, and from here on only counted");

    const TimeValue due = m_options.play.empty() ? 0 : m_playClock.get(frame);
    const std::uint64_t wanted =
        std::min<std::uint64_t>(frame.data.size() / sampleBytes, m_outputs.getSamplesLeft());
    for (std::uint64_t done = 0; done < wanted;)
    {
        const std::uint64_t samples = m_outputs.write(
            ByteView(frame.data).subspan(done * sampleBytes, (wanted - done) * sampleBytes),
            frame.arrival, due);
        const FilePlace& end = m_outputs.getPlace();
        connection.addSamples(
            {{end.file, end.sample - samples},
             frame.timestamp + format.toNanoseconds(done),
             samples},
            isNew && done == 0);
        done += samples;
    }
}

void Recorder::add(const kit::ConsumerEvent& event)
{
    using Kind = kit::ConsumerEvent::Kind;
    if (event.kind == Kind::Joined)
        return;
    const bool isLoss = event.kind == Kind::Lost;
    endConnection(isLoss ? "lost" : "stall", event.time);
    if (m_isDone)
        return;
    if (isLoss && m_options.oneshot && m_numFrames > 0)
        m_isDone = true;
    // A sender that sends nothing for long stalls again and again.
    // Nor was a stream joined, for the user, that brought no frame: an obstacle may follow.
    else if (
        (isLoss ? m_numFrames > 0 : !std::exchange(m_stallSaid, true)) &&
        !std::exchange(m_absenceSaid, true))
        printNotice(event.text);
}

/// @return the present connection, which begins with its first frame
ConnectionRecord& Recorder::getConnection()
{
    if (!std::exchange(m_connected, true))
        m_connections.push_back({.waitBegin = m_waitBegin});
    return m_connections.back();
}

void Recorder::endConnection(const char* how, TimeValue time)
{
    m_waitBegin = time;
    if (std::exchange(m_connected, false))
        m_connections.back().ended = how;
}

std::string Recorder::describeProgress() const
{
    if (m_numFrames == 0)
        return "waiting for the sender";
    return toSeconds(m_outputs.getDurationNs()) + " received in " + toCount(m_numFrames, "frame") +
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
    if (m_outputs.getFiles().size() > 1)
        text += ", in " + toCount(m_outputs.getFiles().size(), "file");
    if (m_numLost > 0)
        text += "; " + toCount(m_numLost, "frame") + " lost: the output was too slow";
    return text + m_outputs.describeFaults();
}

void Recorder::addToReport(nlohmann::ordered_json& report) const
{
    if (m_outputs.getFormat())
        addFormat(report, *m_outputs.getFormat());
    report["frames"] = m_numFrames;
    report["gaps"] = m_numGaps;
    report["gap_ns"] = m_gapNs;
    report["overflowed_frames"] = m_numLost;
    m_outputs.addToReport(report);
    report["connections"] = nlohmann::ordered_json::array();
    for (const ConnectionRecord& connection : m_connections)
        report["connections"].push_back(connection.toJson());
}

} // namespace vlx::tool
