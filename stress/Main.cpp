#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <sys/utsname.h>

#include "Fleet.hpp"
#include "Runs.hpp"

namespace vlx::stress
{

namespace
{

struct Run
{
    const char* name;
    const char* options;
    int (*run)(const Arguments&);
};

constexpr Run Runs[] = {
    {"endurance", "[--quick]", runEndurance},
    {"chaos", "[MINUTES] [--only TEXT] [--seed NUMBER] [--lenient]", runChaos},
    {"soak", "[MINUTES] [--svg FILE]", runSoak},
};

int printUsage()
{
    for (const Run& run : Runs)
        std::fprintf(stderr, "usage: vlx_stress %s %s\n", run.name, run.options);
    return ExitUsage;
}

} // namespace

bool hasOption(const Arguments& arguments, const std::string& option)
{
    return std::find(arguments.begin(), arguments.end(), option) != arguments.end();
}

std::string
getOption(const Arguments& arguments, const std::string& option, const std::string& fallback)
{
    const auto found = std::find(arguments.begin(), arguments.end(), option);
    return found == arguments.end() || found + 1 == arguments.end() ? fallback : *(found + 1);
}

int getMinutes(const Arguments& arguments, int fallback)
{
    const int minutes = arguments.empty() ? 0 : std::atoi(arguments.front().c_str());
    return minutes > 0 ? minutes : fallback;
}

void printMachine(const std::string& run, unsigned seed)
{
    utsname system = {};
    ::uname(&system);
    double load = 0;
    std::ifstream("/proc/loadavg") >> load;
    std::printf(
        "%s | %u processors | Linux %s | load %.1f | seed %u\n\n", run.c_str(),
        std::thread::hardware_concurrency(), system.release, load, seed);
    std::fflush(stdout);
}

} // namespace vlx::stress

int main(int argc, char** argv)
{
    using namespace vlx::stress;

    Arguments arguments(argv + 1, argv + argc);
    if (arguments.empty())
        return printUsage();
    const std::string name = arguments.front();
    arguments.erase(arguments.begin());
    if (name == "worker" && arguments.size() == 2)
        return runWorker(
            mapSharedBlock(std::atoi(arguments[0].c_str())),
            static_cast<std::size_t>(std::atoi(arguments[1].c_str())));

    catchStopSignals();
    for (const Run& run : Runs)
        if (name == run.name && !hasOption(arguments, "--help"))
            return run.run(arguments);
    return printUsage();
}
