#pragma once

// Time, signals, directories, figures and tables that all stress runs share.

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

#include <miscUtils/TimeValue.hpp>

namespace vlx::stress
{

using miscUtils::TimeValue;

constexpr TimeValue NsPerUs = 1'000;
constexpr TimeValue NsPerMs = 1'000'000;
constexpr TimeValue NsPerSecond = 1'000'000'000;

inline double toMs(TimeValue nanoseconds)
{
    return static_cast<double>(nanoseconds) / static_cast<double>(NsPerMs);
}

/// SIGINT and SIGTERM end all waits, so that a run clears up behind itself.
void catchStopSignals();
bool isInterrupted();

/// @return whether the condition came true within the limit; false at once when interrupted
bool waitUntil(int limitMs, const std::function<bool()>& condition);

/// Lets time pass, for measured periods. Ends early when interrupted.
void letPass(int milliseconds);

/// @return a number from [low, high], of one generator whose seed is printed
int pickRandom(int low, int high);
void seedRandom(unsigned seed);

/// A short private directory, made known as TMPDIR and removed with everything in it.
class RunDirectory
{
public:
    RunDirectory();
    ~RunDirectory();
    RunDirectory(const RunDirectory&) = delete;
    RunDirectory& operator=(const RunDirectory&) = delete;

    const std::string& getPath() const
    {
        return m_path;
    }

private:
    std::string m_path;
};

/// Idle threads, one on each processor, that sleep for a millisecond at a time and note when they
/// wake too late: what the machine itself does to a process, without any of our code in it.
class PauseProbe
{
public:
    PauseProbe();
    ~PauseProbe();
    PauseProbe(const PauseProbe&) = delete;
    PauseProbe& operator=(const PauseProbe&) = delete;

    /// @return the longest pause, in nanoseconds, that overlaps a span of time
    TimeValue getLargest(TimeValue from, TimeValue until) const;

private:
    struct Pause
    {
        TimeValue from;
        TimeValue until;
    };

    void loop(unsigned processor);

    mutable std::mutex m_mutex;
    std::vector<Pause> m_pauses; // guarded by m_mutex; those above MinPauseNs
    std::atomic<bool> m_done = false;
    std::vector<std::thread> m_threads;
};

/// Counts durations in eight steps per octave. One thread adds, others may read. It lies in shared
/// memory, so it holds no pointer.
class Histogram
{
public:
    void add(TimeValue nanoseconds);

    /// @param share  0 to 1
    /// @return upper edge, in nanoseconds, of the step in which that share is reached; 0 if empty
    TimeValue getQuantile(double share) const;

private:
    std::array<std::atomic<std::uint32_t>, 512> m_counts{};
};

/// What /proc tells about a process.
struct ProcessFigures
{
    int descriptors = 0;
    int threads = 0;
    double pssKiB = 0;
    double rssKiB = 0;

    bool hasSameHandles(const ProcessFigures& other) const
    {
        return descriptors == other.descriptors && threads == other.threads;
    }
};

ProcessFigures readProcessFigures(pid_t pid);

/// Prints rows under headings, each column as wide as its widest cell.
class Table
{
public:
    explicit Table(std::vector<std::string> headings);
    void addRow(std::vector<std::string> cells);
    void print() const;

private:
    std::vector<std::vector<std::string>> m_rows;
};

/// @pre there is a value
double getMedian(std::vector<double> values);

/// printf into a string.
__attribute__((format(printf, 1, 2))) std::string format(const char* pattern, ...);

} // namespace vlx::stress
