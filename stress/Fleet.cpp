#include "Fleet.hpp"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <numeric>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

namespace vlx::stress
{

namespace
{

constexpr TimeValue CauseNs = 100 * NsPerMs; // what starts a loss lies near its beginning
constexpr int ReadyLimitMs = 10'000;

[[noreturn]] void die(const char* what)
{
    std::perror(what);
    std::exit(EXIT_FAILURE);
}

} // namespace

std::uint64_t Slot::countFrames() const
{
    return phases[0].frames + phases[1].frames + phases[2].frames;
}

std::uint64_t Slot::countLost() const
{
    return phases[0].lost + phases[1].lost + phases[2].lost;
}

SharedBlock& mapSharedBlock(int fd)
{
    // Populated: pages that come one by one would look like growth.
    constexpr int Flags = MAP_SHARED | MAP_POPULATE;
    void* const memory = ::mmap(nullptr, sizeof(SharedBlock), PROT_READ | PROT_WRITE, Flags, fd, 0);
    if (memory == MAP_FAILED)
        die("stress: mmap");
    return *static_cast<SharedBlock*>(memory);
}

Fleet::Fleet()
{
    m_fd = ::memfd_create("vlx-stress", 0);
    if (m_fd < 0 || ::ftruncate(m_fd, sizeof(SharedBlock)) < 0)
        die("stress: memfd");
    m_block = new (&mapSharedBlock(m_fd)) SharedBlock();
}

Fleet::~Fleet()
{
    killAll();
    for (const int fd : m_errorFDs)
        if (fd != 0)
            ::close(fd);
    ::munmap(m_block, sizeof(SharedBlock));
    ::close(m_fd);
}

Slot& Fleet::start(std::size_t index, const WorkerConfig& config)
{
    kill(index);
    Slot& slot = *new (&m_block->slots[index]) Slot();
    slot.config = config;

    const std::string fdText = std::to_string(m_fd);
    const std::string indexText = std::to_string(index);
    const char* const arguments[] = {
        "vlx_stress", "worker", fdText.c_str(), indexText.c_str(), nullptr};
    if (m_errorFDs[index] != 0)
        ::close(m_errorFDs[index]);
    m_errorFDs[index] = ::memfd_create("stderr", MFD_CLOEXEC);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0)
        die("stress: fork");
    if (pid == 0)
    {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (std::getenv("VLX_STRESS_LOG") == nullptr)
            ::dup2(m_errorFDs[index], STDERR_FILENO);
        if (::getppid() == parent)
            ::execv("/proc/self/exe", const_cast<char* const*>(arguments));
        ::_exit(ExitBroken);
    }
    m_pids[index] = pid;
    return slot;
}

bool Fleet::isRunning(std::size_t index)
{
    if (m_pids[index] == 0)
        return false;
    if (::waitpid(m_pids[index], &m_statuses[index], WNOHANG) != m_pids[index])
        return true;
    m_pids[index] = 0;
    return false;
}

void Fleet::signal(std::size_t index, int signalNumber)
{
    if (m_pids[index] != 0)
        ::kill(m_pids[index], signalNumber);
}

void Fleet::kill(std::size_t index)
{
    if (m_pids[index] == 0)
        return;
    signal(index, SIGKILL);
    ::waitpid(m_pids[index], &m_statuses[index], 0);
    m_pids[index] = 0;
}

void Fleet::killAll()
{
    for (std::size_t i = 0; i < NumSlots; ++i)
        signal(i, SIGKILL);
    for (std::size_t i = 0; i < NumSlots; ++i)
        kill(i);
}

std::string Fleet::readLastWords(std::size_t index) const
{
    std::array<char, 512> text;
    const ssize_t size = ::pread(m_errorFDs[index], text.data(), text.size(), 0);
    return std::string(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
}

std::optional<int> Fleet::waitExit(std::size_t index, int limitMs)
{
    if (waitUntil(limitMs, [&] { return !isRunning(index); }))
        return m_statuses[index];
    kill(index);
    return std::nullopt;
}

std::string describeStatus(const std::optional<int>& status)
{
    if (!status)
        return "hung";
    if (WIFSIGNALED(*status))
        return std::string("SIG") + ::sigabbrev_np(WTERMSIG(*status));
    switch (WEXITSTATUS(*status))
    {
    case ExitDone:
        return "worked";
    case ExitRefused:
        return "refused";
    case ExitException:
        return "exception";
    case ExitStarved:
        return "no frame";
    }
    return "exit " + std::to_string(WEXITSTATUS(*status));
}

WorkerConfig makeWorker(Role role, const std::string& nameSuffix)
{
    WorkerConfig config;
    config.role = role;
    format("stress-%d%s", ::getpid(), nameSuffix.c_str())
        .copy(config.name.data(), config.name.size() - 1);
    return config;
}

std::vector<std::size_t> startStream(Fleet& fleet, std::size_t numReceivers, WorkerConfig sender)
{
    sender.waitForReceivers = static_cast<unsigned>(numReceivers);
    fleet.start(SenderSlot, sender);
    if (!waitUntil(ReadyLimitMs, [&] { return fleet[SenderSlot].ready.load(); }))
        return {};

    std::vector<std::size_t> receivers(numReceivers);
    std::iota(receivers.begin(), receivers.end(), FirstReceiverSlot);
    for (const std::size_t index : receivers)
        fleet.start(index, makeWorker(Role::Receiver));
    const auto isReady = [&](std::size_t index) { return fleet[index].ready.load(); };
    if (!waitUntil(
            ReadyLimitMs, [&] { return std::all_of(receivers.begin(), receivers.end(), isReady); }))
        return {};
    fleet[SenderSlot].go = true;
    return receivers;
}

std::optional<double> waitForDelivery(
    Fleet& fleet,
    const std::vector<std::size_t>& receivers,
    TimeValue since,
    int limitMs)
{
    const auto delivers = [&](std::size_t index)
    {
        const std::uint64_t incarnation = fleet[SenderSlot].incarnation;
        return incarnation != 0 && fleet[index].incarnation == incarnation;
    };
    if (!waitUntil(
            limitMs, [&] { return std::all_of(receivers.begin(), receivers.end(), delivers); }))
        return std::nullopt;

    TimeValue latest = since;
    for (const std::size_t index : receivers)
        latest = std::max(latest, fleet[index].incarnationSince.load());
    return toMs(latest - since);
}

std::string LossSummary::toText() const
{
    return format(
        "%lu of %lu lost (%lu unexplained, pause %.1f ms)", lost, lost + received, unexplained,
        largestPauseMs);
}

LossSummary summariseLosses(
    Fleet& fleet,
    const std::vector<std::size_t>& receivers,
    const PauseProbe& probe,
    TimeValue from)
{
    LossSummary summary;
    TimeValue largest = 0;
    for (const std::size_t index : receivers)
    {
        const Slot& slot = fleet[index];
        summary.received += slot.countFrames();
        summary.lost += slot.countLost();

        std::uint64_t explained = 0;
        const std::size_t numBursts = std::min<std::size_t>(slot.numBursts, slot.bursts.size());
        for (std::size_t i = 0; i < numBursts; ++i)
        {
            const LossBurst& burst = slot.bursts[i];
            const TimeValue cause = std::min<TimeValue>(burst.until, burst.from + CauseNs);
            const TimeValue pause = probe.getLargest(burst.from, cause);
            largest = std::max(largest, pause);
            if (pause >= FramePeriodNs)
                explained += burst.count;
        }
        summary.unexplained += slot.countLost() - explained;
    }
    if (summary.lost == 0)
        largest = probe.getLargest(from, miscUtils::getMonotonicSysclockTime());
    summary.largestPauseMs = toMs(largest);
    return summary;
}

} // namespace vlx::stress
