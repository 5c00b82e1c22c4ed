// Descriptors, threads and directories that run out or go away.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "Chaos.hpp"

namespace vlx::stress
{

namespace
{

constexpr const char* NoStream = "the stream itself did not start";
constexpr std::size_t FirstSweepSlot = 2;
constexpr int SweepLimitMs = 6'000; // a receiver that stops without help takes 5 s

/// What became of the workers of a sweep: names of outcomes, and the limits that led to them.
using SweepResult = std::map<std::string, std::vector<unsigned>>;

/// @return "0-3,7"
std::string describeRanges(const std::vector<unsigned>& numbers)
{
    std::string text;
    for (std::size_t i = 0; i < numbers.size();)
    {
        std::size_t last = i;
        while (last + 1 < numbers.size() && numbers[last + 1] == numbers[last] + 1)
            ++last;
        text += (text.empty() ? "" : ",") + std::to_string(numbers[i]);
        if (last != i)
            text += "-" + std::to_string(numbers[last]);
        i = last + 1;
    }
    return text;
}

std::string describeEnds(const SweepResult& result)
{
    std::string text;
    for (const auto& [name, limits] : result)
        text += (text.empty() ? "" : "; ") + name + ": " + describeRanges(limits);
    return text;
}

/// A refusal or an exception is what callers can deal with. nanomsg's own abort, a hang in it and a
/// receiver without frames are documented limits; an assertion of ours or another signal is none.
Outcome judgeSweep(const SweepResult& result)
{
    static const std::vector<std::string> Good = {"worked", "refused", "exception"};
    static const std::vector<std::string> Limits = {"SIGABRT", "hung", "no frame"};
    const auto isIn = [](const std::vector<std::string>& names, const std::string& name)
    { return std::find(names.begin(), names.end(), name) != names.end(); };

    Verdict verdict = result.count("worked") != 0 ? Verdict::Ok : Verdict::Failed;
    for (const auto& [name, limits] : result)
    {
        if (isIn(Limits, name) && verdict == Verdict::Ok)
            verdict = Verdict::Limit;
        else if (!isIn(Good, name) && !isIn(Limits, name))
            verdict = Verdict::Failed;
    }
    return {verdict, describeEnds(result)};
}

/// Tells apart who aborted.
std::string describeEnd(const Fleet& fleet, std::size_t index, const std::optional<int>& status)
{
    const std::string words = fleet.readLastWords(index);
    if (words.find("Assertion `") != std::string::npos)
        return "our assertion";
    if (words.find("terminate called") != std::string::npos)
        return "std::terminate";
    return describeStatus(status);
}

/// Starts workers under each limit of a range, all at once, and sorts them by their ends.
SweepResult sweep(Fleet& fleet, const WorkerConfig& config, const std::vector<unsigned>& limits)
{
    for (std::size_t i = 0; i < limits.size(); ++i)
    {
        WorkerConfig own = config;
        own.resourceLimit = limits[i];
        own.setUpOnly = true;
        // Senders cannot share a name.
        if (config.role == Role::Sender)
            std::snprintf(own.name.data(), own.name.size(), "stress-%zu", i);
        fleet.start(FirstSweepSlot + i, own);
    }
    SweepResult result;
    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    for (std::size_t i = 0; i < limits.size(); ++i)
    {
        const auto spentMs =
            static_cast<int>((miscUtils::getMonotonicSysclockTime() - start) / NsPerMs);
        const std::size_t index = FirstSweepSlot + i;
        const auto status = fleet.waitExit(index, std::max(SweepLimitMs - spentMs, 1));
        result[describeEnd(fleet, index, status)].push_back(limits[i]);
    }
    return result;
}

Outcome sweepResource(Role role, int resource, const std::vector<unsigned>& limits)
{
    Fleet fleet;
    if (role == Role::Receiver)
        fleet.start(SenderSlot, makeSender());
    WorkerConfig config;
    config.role = role;
    config.resource = resource;
    const SweepResult result = sweep(fleet, config, limits);
    return judgeSweep(result);
}

std::vector<unsigned> makeRange(unsigned first, unsigned count)
{
    std::vector<unsigned> range(count);
    std::iota(range.begin(), range.end(), first);
    return range;
}

Outcome sweepSenderDescriptors(const ChaosContext&)
{
    return sweepResource(Role::Sender, RLIMIT_NOFILE, makeRange(0, 24));
}

Outcome sweepReceiverDescriptors(const ChaosContext&)
{
    return sweepResource(Role::Receiver, RLIMIT_NOFILE, makeRange(0, 24));
}

/// Threads count per user, those of all workers of a sweep together: so one worker after the other.
Outcome sweepThreads(Role role)
{
    if (::geteuid() != 0)
        return {Verdict::Skipped, "only root can become another user"};
    SweepResult all;
    for (unsigned limit = 0; limit <= 16; ++limit)
    {
        Fleet fleet;
        if (role == Role::Receiver)
        {
            fleet.start(SenderSlot, makeSender());
            waitUntil(ResumeLimitMs, [&] { return fleet[SenderSlot].ready.load(); });
            std::error_code ignored; // nobody has to be able to write to the main channel
            for (const auto& entry : std::filesystem::recursive_directory_iterator(
                     std::filesystem::path(::getenv("TMPDIR")), ignored))
                std::filesystem::permissions(entry, std::filesystem::perms::all, ignored);
        }
        WorkerConfig config;
        config.role = role;
        config.resource = RLIMIT_NPROC;
        for (auto& [name, limits] : sweep(fleet, config, {limit}))
            all[name].push_back(limits.front());
    }
    return judgeSweep(all);
}

Outcome sweepSenderThreads(const ChaosContext&)
{
    return sweepThreads(Role::Sender);
}

Outcome sweepReceiverThreads(const ChaosContext&)
{
    return sweepThreads(Role::Receiver);
}

constexpr rlim_t PlentyOfDescriptors = 1'024;

constexpr rlim_t DescriptorsOfOnePoll = 3; // poll refuses more entries than the limit

/// @return the lowest number that no descriptor of a process has: as a limit it allows no further
///         one, but every poll of those that are there
rlim_t findLowestFreeDescriptor(pid_t pid)
{
    const std::string directory = "/proc/" + std::to_string(pid) + "/fd/";
    rlim_t number = 0;
    while (std::filesystem::is_symlink(directory + std::to_string(number)))
        ++number;
    return number;
}

void limitDescriptors(pid_t pid, rlim_t limit)
{
    rlimit limits = {};
    ::prlimit(pid, RLIMIT_NOFILE, nullptr, &limits);
    limits.rlim_cur = limit;
    ::prlimit(pid, RLIMIT_NOFILE, &limits, nullptr);
}

/// A running sender has no descriptor left when a further receiver comes.
Outcome starveListener(const ChaosContext& context)
{
    Bystanders stream(context);
    if (!stream.begin(4))
        return fail(NoStream);
    const pid_t sender = stream.fleet.getPid(SenderSlot);
    const ProcessFigures before = readProcessFigures(sender);
    limitDescriptors(sender, findLowestFreeDescriptor(sender));
    Slot& latecomer = stream.fleet.start(FirstPeerSlot, makeReceiver());
    letPass(2'000);
    const double cpu = readProcessFigures(sender).cpuSeconds - before.cpuSeconds;
    const std::uint64_t errors = stream.fleet[SenderSlot].errorLines;
    const bool isKeptOut = latecomer.countFrames() == 0;
    limitDescriptors(sender, PlentyOfDescriptors);
    const bool joins = waitUntil(ResumeLimitMs, [&] { return latecomer.countFrames() > 20; });
    stream.fleet.kill(FirstPeerSlot);
    const Outcome others = stream.judge(format(
        "listener spins: %.0f %% CPU, %lu ERRORs/s; latecomer %s once there are descriptors",
        cpu / 2 * 100, errors / 2, joins ? "joins" : "does not join"));
    if (others.verdict == Verdict::Failed || !isKeptOut || !joins)
        return fail(others.figure);
    return {Verdict::Limit, others.figure};
}

/// Running receivers can open nothing when their sender is restarted.
Outcome starveReceivers(const ChaosContext& context)
{
    constexpr std::size_t NumStarved = 3;
    Bystanders stream(context);
    if (!stream.begin(2 * NumStarved))
        return fail(NoStream);
    const std::vector<std::size_t> starved(
        stream.receivers.end() - NumStarved, stream.receivers.end());
    // Descriptors that a receiver closes have higher numbers: it gets none of them again.
    for (const std::size_t index : starved)
        limitDescriptors(stream.fleet.getPid(index), DescriptorsOfOnePoll);
    letPass(300);
    const bool isUndisturbed = stream.getLosses().unexplained == 0;
    stream.receivers.resize(NumStarved);
    const auto took = stream.restartSender();

    SweepResult result;
    for (const std::size_t index : starved)
    {
        const Slot& slot = stream.fleet[index];
        waitUntil(1'000, [&] { return slot.gaveUp || !stream.fleet.isRunning(index); });
        const bool gaveUp = slot.gaveUp;
        const auto status = gaveUp ? std::nullopt : stream.fleet.waitExit(index, 1);
        result[gaveUp ? "gave up" : describeEnd(stream.fleet, index, status)].push_back(
            static_cast<unsigned>(index));
    }
    const bool isOk = took && isUndisturbed && result["gave up"].size() == NumStarved;
    std::string figure = describeEnds(result);
    if (took)
        figure += format("; others resume after %.0f ms", *took);
    return {isOk ? Verdict::Ok : Verdict::Failed, figure};
}

/// A small file system, in a mount namespace of this thread, as TMPDIR of all workers to come.
class SmallFileSystem
{
public:
    explicit SmallFileSystem(std::string path) : m_path(std::move(path))
    {
        std::filesystem::create_directory(m_path);
        m_mounted = ::unshare(CLONE_NEWNS) == 0 &&
                    ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                    ::mount("none", m_path.c_str(), "tmpfs", 0, "size=64k,nr_inodes=16") == 0;
        ::setenv("TMPDIR", m_path.c_str(), 1);
    }

    ~SmallFileSystem()
    {
        ::setenv("TMPDIR", std::filesystem::path(m_path).parent_path().c_str(), 1);
        if (m_mounted)
            ::umount2(m_path.c_str(), MNT_DETACH);
    }

    SmallFileSystem(const SmallFileSystem&) = delete;
    SmallFileSystem& operator=(const SmallFileSystem&) = delete;

    bool isMounted() const
    {
        return m_mounted;
    }

    void setReadOnly(bool isReadOnly) const
    {
        unsigned long flags = MS_REMOUNT;
        if (isReadOnly)
            flags |= MS_RDONLY;
        ::mount("none", m_path.c_str(), "tmpfs", flags, "size=64k,nr_inodes=16");
    }

    void fill() const
    {
        for (int i = 0; i < 32; ++i)
            std::ofstream(m_path + "/fill-" + std::to_string(i)) << std::string(4'096, 'x');
    }

    void empty() const
    {
        for (int i = 0; i < 32; ++i)
            ::unlink((m_path + "/fill-" + std::to_string(i)).c_str());
    }

private:
    const std::string m_path;
    bool m_mounted = false;
};

/// A running stream while its base directory is out of order, a second sender meanwhile, and a
/// restart of the first once the directory is in order again.
Outcome runWithoutDirectory(
    const ChaosContext& context,
    const std::function<void()>& breakIt,
    const std::function<void()>& repairIt)
{
    Bystanders stream(context);
    if (!stream.begin(2))
        return fail(NoStream);
    breakIt();
    WorkerConfig second = makeSender();
    second.name = {"stress-second"};
    second.setUpOnly = true;
    stream.fleet.start(FirstPeerSlot, second);
    const auto status = stream.fleet.waitExit(FirstPeerSlot, ResumeLimitMs);
    letPass(500);
    const Outcome others = stream.judge("a new sender " + describeStatus(status));
    repairIt();
    const auto took = stream.restartSender();
    const bool isRefused = status && WIFEXITED(*status) && WEXITSTATUS(*status) == ExitRefused;
    const std::string figure =
        others.figure + (took ? format("; put right: receivers resume after %.0f ms", *took)
                              : "; put right: no frames within 3 s");
    return {isRefused && took ? others.verdict : Verdict::Failed, figure};
}

Outcome runWithSmallFileSystem(const ChaosContext& context, bool isFull)
{
    const SmallFileSystem fileSystem(context.directory + "/fs");
    if (!fileSystem.isMounted())
        return {Verdict::Skipped, "cannot mount a file system in a private namespace"};
    if (isFull)
        return runWithoutDirectory(
            context, [&] { fileSystem.fill(); }, [&] { fileSystem.empty(); });
    return runWithoutDirectory(
        context, [&] { fileSystem.setReadOnly(true); }, [&] { fileSystem.setReadOnly(false); });
}

Outcome runWithFullDirectory(const ChaosContext& context)
{
    return runWithSmallFileSystem(context, true);
}

Outcome runWithReadOnlyDirectory(const ChaosContext& context)
{
    return runWithSmallFileSystem(context, false);
}

Outcome runWithRemovedDirectory(const ChaosContext& context)
{
    const std::string path = context.directory + "/gone";
    std::filesystem::create_directory(path);
    ::setenv("TMPDIR", path.c_str(), 1);
    const Outcome outcome = runWithoutDirectory(
        context, [&] { std::filesystem::remove_all(path); },
        [&] { std::filesystem::create_directory(path); });
    ::setenv("TMPDIR", context.directory.c_str(), 1);
    return outcome;
}

constexpr const char* DirectoryPromise = "stream goes on; new sender refused; recovers";

constexpr Scenario ResourceScenarios[] = {
    {"descriptors-sender", "set-up of a sender with 0 to 23 free descriptors",
     "refused; limit: abort or hang in nanomsg", sweepSenderDescriptors},
    {"descriptors-receiver", "a receiver with 0 to 23 free descriptors",
     "refused; limit: abort or hang in nanomsg", sweepReceiverDescriptors},
    {"descriptors-listener", "running sender out of descriptors, newcomer",
     "others undisturbed; limit: listener spins", starveListener},
    {"descriptors-rejoin", "running receivers out of descriptors, rejoin",
     "receiver gives up; others resume", starveReceivers},
    {"threads-sender", "set-up of a sender with RLIMIT_NPROC 0 to 16",
     "exception; limit: abort in nanomsg", sweepSenderThreads},
    {"threads-receiver", "a receiver with RLIMIT_NPROC 0 to 16",
     "exception; limit: abort in nanomsg", sweepReceiverThreads},
    {"tmpdir-full", "TMPDIR full while running", DirectoryPromise, runWithFullDirectory},
    {"tmpdir-readonly", "TMPDIR read-only while running", DirectoryPromise,
     runWithReadOnlyDirectory},
    {"tmpdir-removed", "TMPDIR removed while running", DirectoryPromise, runWithRemovedDirectory},
};

} // namespace

std::span<const Scenario> getResourceScenarios()
{
    return ResourceScenarios;
}

} // namespace vlx::stress
