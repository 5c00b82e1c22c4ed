#include "Outputs.hpp"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <utility>

#include <nlohmann/json.hpp>

#include <miscUtils/MiscUtils.hpp>

#include "common/ExitCodes.hpp"
#include "common/Numbers.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

namespace fs = std::filesystem;

/// @param time  nanoseconds of CLOCK_MONOTONIC
/// @return a text as strftime() makes it of the local time
std::string expandPattern(const std::string& pattern, TimeValue time)
{
    const auto age = static_cast<std::int64_t>(miscUtils::getMonotonicSysclockTime() - time);
    const auto wallTime = std::chrono::system_clock::now() - std::chrono::nanoseconds(age);
    const std::time_t seconds = std::chrono::system_clock::to_time_t(
        std::chrono::time_point_cast<std::chrono::system_clock::duration>(wallTime));
    std::tm local{};
    ::localtime_r(&seconds, &local);
    std::ostringstream text;
    text << std::put_time(&local, pattern.c_str());
    return text.str();
}

/// @return the path with a number before its extension
std::string numberPath(const fs::path& path, std::size_t number)
{
    const std::string stem = path.stem().string() + formatText("-%03zu", number);
    return fs::path(path).replace_filename(stem + path.extension().string());
}

/// @return the highest number of a file beside the path; 0 without one
std::size_t findHighestNumber(const fs::path& path)
{
    const std::string begin = path.stem().string() + "-";
    const std::string end = path.extension().string();
    const fs::path directory = path.has_parent_path() ? path.parent_path() : fs::path(".");
    std::size_t highest = 0;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), none; !error && entry != none;
         entry.increment(error))
    {
        const std::string name = entry->path().filename().string();
        if (name.size() <= begin.size() + end.size() || !name.starts_with(begin) ||
            !name.ends_with(end))
            continue;
        constexpr std::uint64_t Highest = 1'000'000'000;
        const auto number = parseNumber(
            std::string_view(name).substr(begin.size(), name.size() - begin.size() - end.size()));
        if (number && *number < Highest)
            highest = std::max<std::size_t>(highest, *number);
    }
    return highest;
}

} // unnamed namespace

Outputs::Outputs(const RecordingOptions& options, const OutputWaits& waits)
    : m_options(options), m_waits(waits)
{
    if (!options.namePattern)
    {
        m_output = open(0);
        return;
    }
    const std::string example =
        expandPattern(options.output, miscUtils::getMonotonicSysclockTime());
    if (example.empty())
        throw CommandFailure(ExitCode::Usage, "the pattern expands to an empty name");
    checkOutput(example, options.type);
}

std::unique_ptr<AudioOutput> Outputs::open(TimeValue time)
{
    if (!m_options.play.empty())
        return openPlayOutput(
            m_options.play, m_options.latency.value_or(DefaultLatency), m_waits.stop);
    const std::string path = makeName(time);
    const fs::path directory = fs::path(path).parent_path();
    std::error_code error; // opening the file reports it
    if (m_options.namePattern && !directory.empty())
        fs::create_directories(directory, error);
    auto output = openOutput(path, m_options.type, m_options.overwrite, m_waits);
    m_files.push_back(path);
    return output;
}

std::string Outputs::makeName(TimeValue time)
{
    if (m_options.namePattern)
    {
        const std::string name = expandPattern(m_options.output, time);
        std::error_code error;
        const bool isTaken = !m_used.insert(name).second ||
                             (!m_options.overwrite && fs::is_regular_file(name, error));
        return isTaken ? numberPath(name, findHighestNumber(name) + 1) : name;
    }
    if (!m_options.split && !m_options.maxDuration)
        return m_options.output;
    if (m_number == 0 && !m_options.overwrite)
        m_number = findHighestNumber(m_options.output);
    return numberPath(m_options.output, ++m_number);
}

void Outputs::begin(kit::StreamFormat format, TimeValue time)
{
    if (m_format)
    {
        finish();
        m_closedNs = getDurationNs();
        m_place = {m_place.file + 1, 0};
    }
    if (!m_output)
        m_output = open(time);
    m_format = format;
    m_output->start(format);
}

std::uint64_t Outputs::write(const ByteView& bytes, TimeValue time, TimeValue due)
{
    if (countSamplesUntil(m_options.maxDuration, 0) == 0 && m_place.sample > 0)
        begin(*m_format, time);
    const std::size_t sampleBytes = m_format->getBytesPerSample();
    const std::uint64_t samples = std::min<std::uint64_t>(
        bytes.size() / sampleBytes,
        std::max<std::uint64_t>(countSamplesUntil(m_options.maxDuration, 0), 1));
    m_output->write(bytes.first(samples * sampleBytes), due);
    m_place.sample += samples;
    m_numSamples += samples;
    return samples;
}

void Outputs::work()
{
    if (m_output)
        m_output->work();
}

void Outputs::finish()
{
    if (!m_output)
        return;
    m_closed.push_back(std::move(m_output));
    m_closed.back()->finish();
    if (m_options.play.empty())
        m_closed.clear(); // files have nothing to add
}

std::int64_t Outputs::getDurationNs() const
{
    return m_closedNs +
           static_cast<std::int64_t>(m_format ? m_format->toNanoseconds(m_place.sample) : 0);
}

std::uint64_t Outputs::countSamplesUntil(const OptionalDuration& length, std::int64_t doneNs) const
{
    if (!length)
        return UINT64_MAX;
    const std::int64_t restNs = std::max<std::int64_t>(length->count() - doneNs, 0);
    const std::uint64_t limit = m_format->toSamples(static_cast<TimeValue>(restNs));
    return limit - std::min(limit, m_place.sample);
}

std::string Outputs::describeFaults() const
{
    std::string text;
    for (const auto& output : m_closed)
    {
        const std::string faults = output->describeFaults();
        text += faults.empty() ? "" : "; " + faults;
    }
    return text;
}

void Outputs::addToReport(nlohmann::ordered_json& report) const
{
    report["samples"] = m_numSamples;
    report["files"] = m_files;
    for (const auto& output : m_closed)
        output->addToReport(report);
}

} // namespace vlx::tool
