// Descriptors, threads and directories that run out or go away.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>

#include <Guards.hpp>
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

constexpr std::size_t FirstSweepSlot = 2;
constexpr int SweepLimitMs = 6'000; // a receiver that stops without help takes 5 s

/// What became of the workers of a sweep: how many came to which end.
using SweepResult = std::map<std::string, unsigned>;

std::string toText(const SweepResult& result)
{
    std::string text;
    for (const auto& [end, count] : result)
        text += (text.empty() ? "" : ", ") + std::to_string(count) + " x " + end;
    return text;
}

/// A refusal or an exception is what callers can deal with. nanomsg's own abort, a hang in it and a
/// receiver without frames are documented limits; an assertion of ours or another signal is none.
Outcome judgeSweep(const SweepResult& result)
{
    static const std::map<std::string, Verdict> Verdicts = {
        {"worked", Verdict::Ok},     {"refused", Verdict::Ok}, {"exception", Verdict::Ok},
        {"SIGABRT", Verdict::Limit}, {"hung", Verdict::Limit}, {"no frame", Verdict::Limit}};
    Verdict verdict = result.count("worked") != 0 ? Verdict::Ok : Verdict::Failed;
    for (const auto& [end, count] : result)
    {
        const auto found = Verdicts.find(end);
        if (found == Verdicts.end())
            verdict = Verdict::Failed;
        else if (found->second == Verdict::Limit && verdict == Verdict::Ok)
            verdict = Verdict::Limit;
    }
    return {verdict, toText(result)};
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
SweepResult sweep(Fleet& fleet, Role role, int resource, const std::vector<unsigned>& limits)
{
    for (std::size_t i = 0; i < limits.size(); ++i)
    {
        // Senders cannot share a name.
        const bool isSender = role == Role::Sender;
        WorkerConfig config = makeWorker(role, isSender ? "-" + std::to_string(i) : "");
        config.resource = resource;
        config.resourceLimit = limits[i];
        config.setUpOnly = true;
        fleet.start(FirstSweepSlot + i, config);
    }
    SweepResult result;
    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    for (std::size_t i = 0; i < limits.size(); ++i)
    {
        const auto spentMs =
            static_cast<int>((miscUtils::getMonotonicSysclockTime() - start) / NsPerMs);
        const std::size_t index = FirstSweepSlot + i;
        const auto status = fleet.waitExit(index, std::max(SweepLimitMs - spentMs, 1));
        ++result[describeEnd(fleet, index, status)];
    }
    return result;
}

Outcome sweepDescriptors(Role role)
{
    Fleet fleet;
    if (role == Role::Receiver)
        fleet.start(SenderSlot, makeWorker(Role::Sender));
    std::vector<unsigned> limits(24);
    std::iota(limits.begin(), limits.end(), 0U);
    return judgeSweep(sweep(fleet, role, RLIMIT_NOFILE, limits));
}

/// Lets every user write to the main channel of the sender that runs.
void openMainChannel()
{
    std::error_code ignored;
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(std::getenv("TMPDIR"), ignored))
        std::filesystem::permissions(entry, std::filesystem::perms::all, ignored);
}

/// Threads count per user, those of all workers of a sweep together: so one worker after the other.
Outcome sweepThreads(Role role)
{
    if (::geteuid() != 0)
        return {Verdict::Skipped, "only root can become another user"};
    SweepResult all;
    for (unsigned limit = 0; limit <= 12; ++limit)
    {
        Fleet fleet;
        if (role == Role::Receiver)
        {
            const Slot& sender = fleet.start(SenderSlot, makeWorker(Role::Sender));
            waitUntil(SweepLimitMs, [&] { return sender.ready.load(); });
            openMainChannel();
        }
        for (const auto& [end, count] : sweep(fleet, role, RLIMIT_NPROC, {limit}))
            all[end] += count;
    }
    return judgeSweep(all);
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
    limitDescriptors(sender, findLowestFreeDescriptor(sender));
    Slot& latecomer = stream.fleet.start(FirstPeerSlot, makeWorker(Role::Receiver));
    letPass(2'000);
    const std::uint64_t errors = stream.fleet[SenderSlot].errorLines;
    const bool isKeptOut = latecomer.countFrames() == 0;
    limitDescriptors(sender, PlentyOfDescriptors);
    const bool joins =
        waitUntil(context.resumeLimitMs, [&] { return latecomer.countFrames() > 20; });
    stream.fleet.kill(FirstPeerSlot);
    const Outcome others = stream.judge(format(
        "listener spins: %lu ERRORs/s; latecomer %s once there are descriptors", errors / 2,
        joins ? "joins" : "does not join"));
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
        ++result[gaveUp ? "gave up" : describeEnd(stream.fleet, index, status)];
    }
    const bool isOk = took && isUndisturbed && result["gave up"] == NumStarved;
    const std::string figure =
        took ? format("others resume after %.0f ms", *took) : "others do not";
    return {isOk ? Verdict::Ok : Verdict::Failed, toText(result) + "; " + figure};
}

/// Mounts a small file system, seen by this thread and all workers to come.
bool mountSmallFileSystem(const std::string& path)
{
    std::filesystem::create_directory(path);
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", path.c_str(), "tmpfs", 0, "size=64k,nr_inodes=16") == 0;
}

/// Makes files until no more fit, or removes them.
void fill(const std::string& path, bool isFull)
{
    for (int i = 0; i < 32; ++i)
    {
        const std::string name = path + "/fill-" + std::to_string(i);
        if (isFull)
            std::ofstream(name) << std::string(4'096, 'x');
        else
            ::unlink(name.c_str());
    }
}

/// A running stream while its base directory is out of order, a second sender meanwhile, and a
/// restart of the first once the directory is in order again.
Outcome runWithoutDirectory(
    const ChaosContext& context,
    const std::string& path,
    const std::function<void(bool)>& setBroken)
{
    ::setenv("TMPDIR", path.c_str(), 1);
    const ScopeGuard guard([&] { ::setenv("TMPDIR", context.directory.c_str(), 1); });
    Bystanders stream(context);
    if (!stream.begin(2))
        return fail(NoStream);
    setBroken(true);
    WorkerConfig second = makeWorker(Role::Sender, "-second");
    second.setUpOnly = true;
    stream.fleet.start(FirstPeerSlot, second);
    const auto status = stream.fleet.waitExit(FirstPeerSlot, context.resumeLimitMs);
    letPass(500);
    const Outcome others = stream.judge("a new sender " + describeStatus(status));
    setBroken(false);
    const auto took = stream.restartSender();
    const bool isRefused = status && WIFEXITED(*status) && WEXITSTATUS(*status) == ExitRefused;
    const std::string figure =
        others.figure + (took ? format("; put right: receivers resume after %.0f ms", *took)
                              : "; put right: no frames within 3 s");
    return {isRefused && took ? others.verdict : Verdict::Failed, figure};
}

Outcome runOnSmallFileSystem(
    const ChaosContext& context,
    const std::function<void(const std::string&, bool)>& setBroken)
{
    const std::string path = context.directory + "/fs";
    if (!mountSmallFileSystem(path))
        return {Verdict::Skipped, "cannot mount a file system in a private namespace"};
    Outcome outcome =
        runWithoutDirectory(context, path, [&](bool isBroken) { setBroken(path, isBroken); });
    ::umount2(path.c_str(), MNT_DETACH);
    return outcome;
}

Outcome runReadOnly(const ChaosContext& context)
{
    return runOnSmallFileSystem(
        context,
        [](const std::string& path, bool isReadOnly)
        {
            // The mount, not the file system: that would have to be free of removed files in use.
            unsigned long flags = MS_REMOUNT | MS_BIND;
            if (isReadOnly)
                flags |= MS_RDONLY;
            ::mount(nullptr, path.c_str(), nullptr, flags, nullptr);
        });
}

Outcome runRemoved(const ChaosContext& context)
{
    const std::string path = context.directory + "/gone";
    std::filesystem::create_directory(path);
    return runWithoutDirectory(
        context, path,
        [&](bool isGone)
        {
            if (isGone)
                std::filesystem::remove_all(path);
            else
                std::filesystem::create_directory(path);
        });
}

constexpr const char* DirectoryPromise = "stream goes on; new sender refused; recovers";
using Context = const ChaosContext&;

constexpr Scenario ResourceScenarios[] = {
    {"descriptors-sender", "set-up of a sender with 0 to 23 free descriptors",
     "refused; limit: abort or hang in nanomsg",
     [](Context) { return sweepDescriptors(Role::Sender); }},
    {"descriptors-receiver", "a receiver with 0 to 23 free descriptors",
     "refused; limit: abort or hang in nanomsg",
     [](Context) { return sweepDescriptors(Role::Receiver); }},
    {"descriptors-listener", "running sender out of descriptors, newcomer",
     "others undisturbed; limit: listener spins", starveListener},
    {"descriptors-rejoin", "running receivers out of descriptors, rejoin",
     "receiver gives up; others resume", starveReceivers},
    {"threads-sender", "set-up of a sender with RLIMIT_NPROC 0 to 12",
     "exception; limit: abort in nanomsg", [](Context) { return sweepThreads(Role::Sender); }},
    {"threads-receiver", "a receiver with RLIMIT_NPROC 0 to 12",
     "exception; limit: abort in nanomsg", [](Context) { return sweepThreads(Role::Receiver); }},
    {"tmpdir-full", "TMPDIR full while running", DirectoryPromise,
     [](Context context) { return runOnSmallFileSystem(context, fill); }},
    {"tmpdir-readonly", "TMPDIR read-only while running", DirectoryPromise, runReadOnly},
    {"tmpdir-removed", "TMPDIR removed while running", DirectoryPromise, runRemoved},
};

} // namespace

std::span<const Scenario> getResourceScenarios()
{
    return ResourceScenarios;
}

} // namespace vlx::stress
