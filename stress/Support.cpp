#include "Support.hpp"

#include <algorithm>
#include <bit>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

namespace vlx::stress
{

namespace
{

constexpr TimeValue ProbePeriodNs = NsPerMs;
constexpr TimeValue MinPauseNs = NsPerMs;
constexpr TimeValue LongestSleepNs = 50 * NsPerMs;

volatile std::sig_atomic_t interrupted = 0;
std::mt19937 generator;

void sleepFor(TimeValue nanoseconds)
{
    const timespec duration = {
        static_cast<time_t>(nanoseconds / NsPerSecond),
        static_cast<long>(nanoseconds % NsPerSecond)};
    ::clock_nanosleep(CLOCK_MONOTONIC, 0, &duration, nullptr);
}

int countEntries(const std::string& directory)
{
    std::error_code error;
    int count = 0;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error))
        ++count;
    return count;
}

} // namespace

void catchStopSignals()
{
    struct sigaction action = {};
    action.sa_handler = [](int) { interrupted = 1; };
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
}

bool isInterrupted()
{
    return interrupted != 0;
}

bool waitUntil(int limitMs, const std::function<bool()>& condition)
{
    const TimeValue deadline =
        miscUtils::getMonotonicSysclockTime() + static_cast<TimeValue>(limitMs) * NsPerMs;
    while (!isInterrupted())
    {
        if (condition())
            return true;
        if (miscUtils::getMonotonicSysclockTime() >= deadline)
            return false;
        sleepFor(NsPerMs);
    }
    return false;
}

void letPass(int milliseconds)
{
    TimeValue left = static_cast<TimeValue>(milliseconds) * NsPerMs;
    while (left > 0 && !isInterrupted())
    {
        const TimeValue slice = std::min(left, LongestSleepNs);
        sleepFor(slice);
        left -= slice;
    }
}

int pickRandom(int low, int high)
{
    return std::uniform_int_distribution<int>(low, high)(generator);
}

void seedRandom(unsigned seed)
{
    generator.seed(seed);
}

RunDirectory::RunDirectory()
{
    char path[] = "/tmp/vs-XXXXXX";
    if (::mkdtemp(path) == nullptr)
    {
        std::perror("stress: cannot make a directory in /tmp");
        std::exit(EXIT_FAILURE);
    }
    m_path = path;
    // Workers of another user make their directories in it too.
    std::filesystem::permissions(m_path, std::filesystem::perms::all);
    ::setenv("TMPDIR", path, 1);
}

RunDirectory::~RunDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

PauseProbe::PauseProbe()
{
    for (unsigned processor = 0; processor < std::thread::hardware_concurrency(); ++processor)
        m_threads.emplace_back([this, processor] { loop(processor); });
}

PauseProbe::~PauseProbe()
{
    m_done = true;
    for (std::thread& thread : m_threads)
        thread.join();
}

void PauseProbe::loop(unsigned processor)
{
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(processor, &processors);
    ::sched_setaffinity(0, sizeof(processors), &processors);
    while (!m_done)
    {
        const TimeValue due = miscUtils::getMonotonicSysclockTime() + ProbePeriodNs;
        sleepFor(ProbePeriodNs);
        const TimeValue awake = miscUtils::getMonotonicSysclockTime();
        if (awake < due + MinPauseNs)
            continue;
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_pauses.push_back({due, awake});
    }
}

TimeValue PauseProbe::getLargest(TimeValue from, TimeValue until) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    TimeValue largest = 0;
    for (const Pause& pause : m_pauses)
        if (pause.until >= from && pause.from <= until)
            largest = std::max(largest, pause.until - pause.from);
    return largest;
}

namespace
{

// Eight buckets to an octave; what is below the smallest value counts as it.
constexpr TimeValue SmallestValueNs = 8;
constexpr std::size_t FirstBucket = 24;

} // namespace

void Histogram::add(TimeValue nanoseconds)
{
    const TimeValue value = std::max(nanoseconds, SmallestValueNs);
    const auto octave = static_cast<std::size_t>(std::bit_width(value) - 1);
    const std::size_t step = static_cast<std::size_t>(value >> (octave - 3)) & 7U;
    m_counts[octave * 8 + step].fetch_add(1, std::memory_order_relaxed);
}

TimeValue Histogram::getQuantile(double share) const
{
    std::uint64_t total = 0;
    for (const auto& count : m_counts)
        total += count.load(std::memory_order_relaxed);

    const double wanted = share * static_cast<double>(total);
    std::uint64_t sum = 0;
    for (std::size_t i = FirstBucket; i < m_counts.size(); ++i)
    {
        sum += m_counts[i].load(std::memory_order_relaxed);
        if (sum > 0 && static_cast<double>(sum) >= wanted)
            return static_cast<TimeValue>(9 + i % 8) << (i / 8 - 3);
    }
    return 0;
}

ProcessFigures readProcessFigures(pid_t pid)
{
    const std::string root = "/proc/" + std::to_string(pid);
    ProcessFigures figures;
    figures.descriptors = countEntries(root + "/fd");
    figures.threads = countEntries(root + "/task");

    std::ifstream rollup(root + "/smaps_rollup");
    for (std::string line; std::getline(rollup, line);)
    {
        std::istringstream words(line);
        std::string key;
        double value = 0;
        words >> key >> value;
        if (key == "Pss:")
            figures.pssKiB = value;
        else if (key == "Rss:")
            figures.rssKiB = value;
    }
    return figures;
}

Table::Table(std::vector<std::string> headings) : m_rows{std::move(headings)} {}

void Table::addRow(std::vector<std::string> cells)
{
    m_rows.push_back(std::move(cells));
}

void Table::print() const
{
    std::vector<std::size_t> widths(m_rows.front().size());
    for (const auto& row : m_rows)
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    for (const auto& row : m_rows)
    {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i)
            line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
        line.erase(line.find_last_not_of(' ') + 1);
        std::printf("%s\n", line.c_str());
    }
    std::fflush(stdout);
}

double getMedian(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::string format(const char* pattern, ...)
{
    va_list arguments;
    va_start(arguments, pattern);
    char text[512];
    std::vsnprintf(text, sizeof(text), pattern, arguments);
    va_end(arguments);
    return text;
}

} // namespace vlx::stress
