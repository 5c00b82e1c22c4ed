/// Compares what receivers recorded with the file that was sent, sample by sample, aligned by
/// timestamp, and prints a table from their reports.
///
/// usage: demo-compare SOURCE SENT.json... -- NAME RECORDING REPORT.json [NAME RECORDING ...]

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <vlxkit/StreamFormat.hpp>

#include "audio/AudioInput.hpp"

namespace
{

using nlohmann::json;
using vlx::Buffer;
using vlx::TimeValue;
using vlx::kit::StreamFormat;

// A receiver stays through one loss of the sender.
constexpr std::size_t ConnectionsExpected = 2;

struct Audio
{
    StreamFormat format;
    Buffer bytes;

    std::uint64_t getNumSamples() const
    {
        return bytes.size() / format.getBytesPerSample();
    }
};

/// A stretch of the source as it was sent.
struct Run
{
    TimeValue timestamp;
    std::uint64_t sample;
};

struct Comparison
{
    std::uint64_t compared = 0;
    std::uint64_t differing = 0;
    TimeValue missedNs = 0; ///< sent before the first sample that arrived
};

json readJson(const std::string& path)
{
    std::ifstream stream(path);
    if (!stream)
        throw std::runtime_error("cannot read " + path);
    return json::parse(stream);
}

// Some kinds of files know only signed 8-bit samples, others only unsigned ones.
void makeSigned(Audio& audio)
{
    if (audio.format.sampleFormat != audioUtils::PcmFormat::U8)
        return;
    audio.format.sampleFormat = audioUtils::PcmFormat::S8;
    for (std::uint8_t& byte : audio.bytes)
        byte ^= 0x80;
}

Audio readAudio(const std::string& path, std::uint64_t maxSamples)
{
    constexpr std::size_t ChunkSamples = 4096;
    const auto input = vlx::tool::openFileInput(path);
    Audio audio{input->getFormat(), {}};
    Buffer chunk;
    while (audio.getNumSamples() < maxSamples && input->read(chunk, ChunkSamples) > 0)
        audio.bytes.insert(audio.bytes.end(), chunk.begin(), chunk.end());
    makeSigned(audio);
    return audio;
}

std::vector<Run> readRuns(const std::vector<std::string>& sentReports)
{
    std::vector<Run> runs;
    for (const std::string& path : sentReports)
    {
        const json report = readJson(path);
        for (const json& run : report.at("runs"))
            runs.push_back({run.at("timestamp"), run.at("sample")});
    }
    std::sort(
        runs.begin(), runs.end(),
        [](const Run& left, const Run& right) { return left.timestamp < right.timestamp; });
    return runs;
}

/// @return the run that a timestamp belongs to
const Run& findRun(const std::vector<Run>& runs, TimeValue timestamp)
{
    const auto later = std::upper_bound(
        runs.begin(), runs.end(), timestamp,
        [](TimeValue value, const Run& run) { return value < run.timestamp; });
    if (later == runs.begin())
        throw std::runtime_error("a frame is older than everything that was sent");
    return *(later - 1);
}

Comparison compareSegment(
    const json& segment,
    const Audio& recording,
    const Audio& source,
    const std::vector<Run>& runs)
{
    const std::uint64_t samples = segment.at("samples");
    const std::uint64_t fileSample = segment.at("file_sample");
    const TimeValue timestamp = segment.at("timestamp");
    const Run& run = findRun(runs, timestamp);
    if (fileSample + samples > recording.getNumSamples())
        throw std::runtime_error("the recording is shorter than its report says");

    const std::size_t sampleBytes = source.format.getBytesPerSample();
    Comparison result{0, 0, timestamp - run.timestamp};
    const std::uint64_t sentSample = run.sample + source.format.toSamples(result.missedNs);
    for (; result.compared < samples; ++result.compared)
    {
        const auto* const received =
            recording.bytes.data() + (fileSample + result.compared) * sampleBytes;
        // A file that is shorter than the demonstration was sent over and over.
        const std::uint64_t sourceSample = (sentSample + result.compared) % source.getNumSamples();
        const auto* const sent = source.bytes.data() + sourceSample * sampleBytes;
        if (!std::equal(received, received + sampleBytes, sent))
            ++result.differing;
    }
    return result;
}

std::string printNs(const json& value, double unitNs)
{
    if (value.is_null())
        return "-";
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f", value.get<double>() / unitNs);
    return text;
}

void printHeader()
{
    std::printf(
        "%-9s %4s %9s %9s %7s %5s %7s %11s %11s %9s %9s\n", "receiver", "conn", "join ms",
        "missed ms", "frames", "gaps", "gap ms", "age p50 us", "age p99 us", "compared",
        "differing");
}

void printRow(
    const std::string& name,
    std::size_t number,
    const json& connection,
    const Comparison& result)
{
    constexpr double Millisecond = 1e6;
    constexpr double Microsecond = 1e3;
    std::printf(
        "%-9s %4zu %9s %9s %7llu %5llu %7s %11s %11s %9llu %9llu\n", name.c_str(), number,
        printNs(connection.at("join_ns"), Millisecond).c_str(),
        printNs(result.missedNs, Millisecond).c_str(),
        connection.at("frames").get<unsigned long long>(),
        connection.at("gaps").get<unsigned long long>(),
        printNs(connection.at("gap_ns"), Millisecond).c_str(),
        printNs(connection.at("age_p50_ns"), Microsecond).c_str(),
        printNs(connection.at("age_p99_ns"), Microsecond).c_str(),
        static_cast<unsigned long long>(result.compared),
        static_cast<unsigned long long>(result.differing));
}

/// @return whether everything that the receiver recorded is what was sent
bool compareReceiver(
    const std::string& name,
    const std::string& recordingPath,
    const std::string& reportPath,
    const Audio& source,
    const std::vector<Run>& runs)
{
    const json report = readJson(reportPath);
    const Audio recording = readAudio(recordingPath, UINT64_MAX);
    if (!(recording.format == source.format))
        throw std::runtime_error(
            name + " recorded " + toText(recording.format) + " of " + toText(source.format));
    const json& connections = report.at("connections");
    if (recording.getNumSamples() != report.at("samples"))
        throw std::runtime_error(name + ": recording and report differ in length");
    if (connections.size() != ConnectionsExpected)
        throw std::runtime_error(
            name + " had " + std::to_string(connections.size()) + " connections with frames, " +
            std::to_string(ConnectionsExpected) + " were expected");

    bool same = true;
    for (std::size_t i = 0; i < connections.size(); ++i)
    {
        Comparison total;
        for (const json& segment : connections[i].at("segments"))
        {
            const Comparison result = compareSegment(segment, recording, source, runs);
            if (total.compared == 0)
                total.missedNs = result.missedNs;
            total.compared += result.compared;
            total.differing += result.differing;
        }
        printRow(name, i + 1, connections[i], total);
        same = same && total.differing == 0 && total.compared > 0;
    }
    return same;
}

bool compareAll(const std::vector<std::string>& arguments)
{
    const auto separator = std::find(arguments.begin(), arguments.end(), "--");
    if (separator == arguments.end() || separator == arguments.begin() ||
        (arguments.end() - separator - 1) % 3 != 0)
        throw std::runtime_error(
            "usage: demo-compare SOURCE SENT.json... -- NAME RECORDING REPORT.json ...");

    const std::vector<Run> runs = readRuns({arguments.begin() + 1, separator});
    const Audio source = readAudio(arguments.front(), UINT64_MAX);
    if (source.getNumSamples() == 0)
        throw std::runtime_error("the file that was sent is empty");
    printHeader();
    bool same = true;
    for (auto entry = separator + 1; entry != arguments.end(); entry += 3)
        same = compareReceiver(entry[0], entry[1], entry[2], source, runs) && same;
    return same;
}

} // unnamed namespace

int main(int argc, char** argv)
{
    try
    {
        if (compareAll({argv + 1, argv + argc}))
            return 0;
        std::fprintf(stderr, "demo-compare: SAMPLES DIFFER from what was sent\n");
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "demo-compare: %s\n", error.what());
    }
    return 1;
}
