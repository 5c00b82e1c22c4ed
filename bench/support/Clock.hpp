#pragma once

#include <cstdint>
#include <ctime>

namespace vlx::bench
{

constexpr std::uint64_t NsPerSecond = 1'000'000'000;
constexpr std::uint64_t NsPerMs = 1'000'000;

inline std::uint64_t readClockNs(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * NsPerSecond +
           static_cast<std::uint64_t>(now.tv_nsec);
}

/// @return nanoseconds of the clock that all processes of the machine share
inline std::uint64_t nowNs()
{
    return readClockNs(CLOCK_MONOTONIC);
}

/// @return nanoseconds that all threads of this process have spent on a processor
inline std::uint64_t processCpuNs()
{
    return readClockNs(CLOCK_PROCESS_CPUTIME_ID);
}

inline void sleepUntilNs(std::uint64_t deadlineNs)
{
    timespec deadline{};
    deadline.tv_sec = static_cast<time_t>(deadlineNs / NsPerSecond);
    deadline.tv_nsec = static_cast<long>(deadlineNs % NsPerSecond);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) != 0)
    {
    }
}

} // namespace vlx::bench
