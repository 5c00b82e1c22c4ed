#include "support/Machine.hpp"

#include <fstream>

#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace vlx::bench
{
namespace
{

std::string readProcessorName()
{
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);)
    {
        const std::size_t colon = line.find(": ");
        if (line.starts_with("model name") && colon != std::string::npos)
            return line.substr(colon + 2);
    }
    return "unknown processor";
}

std::string describeCores()
{
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    sched_getaffinity(0, sizeof allowed, &allowed);
    const long all = sysconf(_SC_NPROCESSORS_ONLN);
    const int used = CPU_COUNT(&allowed);
    return used == all ? std::to_string(all) + " cores"
                       : std::to_string(used) + " of " + std::to_string(all) + " cores";
}

std::string readGovernor()
{
    std::ifstream file("/sys/devices/system/cpu/cpu0/cpufreq/scaling_governor");
    std::string governor;
    return file >> governor ? governor : "no governor";
}

} // namespace

std::string describeMachine()
{
    utsname system{};
    uname(&system);
    return readProcessorName() + ", " + describeCores() + ", " + system.sysname + " " +
           system.release + ", " + readGovernor() + " | " + VLX_BENCH_BUILD_TYPE;
}

std::string describeBuildWarning()
{
    std::string reasons;
#ifndef __OPTIMIZE__
    reasons += " not optimised";
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    reasons += " sanitized";
#endif
    return reasons.empty() ? "" : "WARNING: these figures mean nothing, the build is" + reasons;
}

} // namespace vlx::bench
