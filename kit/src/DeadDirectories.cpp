#include "DeadDirectories.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <iterator>
#include <memory>
#include <optional>
#include <set>

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Discovery.hpp>

#include "DirectoryLock.hpp"
#include "FrameRing.hpp"
#include "SenderSearch.hpp"
#include "base/SenderDirectory.hpp"

namespace vlx::kit
{

namespace
{

// A starting sender's directory is empty for a moment.
constexpr std::time_t MinAgeSeconds = 60;

constexpr auto AnswerTimeout = std::chrono::milliseconds(500);

// Prefixes of the files that wake receivers, or a receiver's monitor.
constexpr std::string_view BellPrefix = ".bell-";
constexpr std::string_view StopPrefix = ".vlx-stop-";

enum class Kind
{
    SendersDirectory,
    WakeupFile,
};

/// An entry of the base directory that only Vellox programs create.
struct Candidate
{
    std::string name;
    Kind kind;
    struct stat status;
};

std::optional<Kind> findKind(const std::string& name, const struct stat& status)
{
    if (isSenderDirectoryName(name) && S_ISDIR(status.st_mode))
        return Kind::SendersDirectory;
    if ((name.starts_with(BellPrefix) || name.starts_with(StopPrefix)) && S_ISREG(status.st_mode) &&
        status.st_size == 0)
        return Kind::WakeupFile;
    return std::nullopt;
}

std::vector<Candidate> findCandidates(const std::string& baseDirectory)
{
    std::vector<Candidate> candidates;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(
        ::opendir(baseDirectory.c_str()), ::closedir);
    while (const dirent* const entry = directory ? ::readdir(directory.get()) : nullptr)
    {
        struct stat status = {};
        const std::string name = entry->d_name;
        if (::fstatat(::dirfd(directory.get()), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (const auto kind = findKind(name, status))
            candidates.push_back({name, *kind, status});
    }
    return candidates;
}

bool isOld(const Candidate& candidate)
{
    return std::time(nullptr) - candidate.status.st_mtime > MinAgeSeconds;
}

/// Directories that must not be removed.
struct Living
{
    std::set<std::string> directories;
    std::set<uid_t> doubtfulUsers; // any of their directories may be a sender's
    std::string notice;            // not empty: any directory may be a sender's
};

Living findLiving(int stopFD)
{
    const SenderSearch search = searchSenders(readUnixSockets());
    Living living{
        {search.servedDirectories.begin(), search.servedDirectories.end()},
        {search.doubtfulUsers.begin(), search.doubtfulUsers.end()},
        search.list.notice};
    std::vector<std::string> names;
    std::vector<uid_t> users;
    for (const SenderEntry& sender : search.list.senders)
    {
        if (!sender.socketFile.empty())
            continue; // served
        names.push_back(sender.name);
        users.push_back(sender.user);
    }
    const std::vector<SenderProbe> answers = probeSenders(names, AnswerTimeout, stopFD);
    for (std::size_t i = 0; i < answers.size(); ++i)
    {
        if (answers[i].initialInfo)
            living.directories.insert(findSenderDirectoryName(answers[i].initialInfo->nanomsgURI));
        else
            living.doubtfulUsers.insert(users[i]);
    }
    return living;
}

/// @return whether a process listens at the socket file, also one of another network namespace,
/// which /proc does not show
bool isServed(const std::string& socketFile)
{
    sockaddr_un address{};
    if (socketFile.size() >= sizeof(address.sun_path))
        return true; // cannot be asked
    address.sun_family = AF_UNIX;
    socketFile.copy(address.sun_path, socketFile.size());
    const OwnedDescriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    return ::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
               0 ||
           (errno != ECONNREFUSED && errno != ENOENT);
}

/// Locks a sender's directory, so that no other program removes it at the same time.
///
/// @return 0 or an error number, as DirectoryLock::take(); ESTALE if the directory was replaced
int lockDirectory(const std::string& path, const struct stat& expected, DirectoryLock& lock)
{
    const OwnedDescriptor directory(
        ::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory.isOpen())
        return errno;
    struct stat status = {};
    if (::fstat(directory.get(), &status) != 0 || status.st_uid != expected.st_uid ||
        status.st_ino != expected.st_ino)
        return ESTALE;
    return lock.take(directory.get());
}

/// @return as DeadEntry::problem
std::string removeDirectory(const std::string& path, uid_t user)
{
    // By descriptor: another process may replace it by a link to another directory.
    const OwnedDescriptor directory(
        ::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory.isOpen())
        return miscUtils::strerror_r_safe(errno);
    struct stat status = {};
    if (::fstat(directory.get(), &status) != 0 || status.st_uid != user)
        return "another user has replaced it";

    // Only a socket is removed; any other entry makes rmdir() fail.
    if (::fstatat(directory.get(), SocketFileName, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISSOCK(status.st_mode) && ::unlinkat(directory.get(), SocketFileName, 0) != 0)
        return miscUtils::strerror_r_safe(errno);
    return ::rmdir(path.c_str()) == 0 ? std::string() : miscUtils::strerror_r_safe(errno);
}

/// @return as DeadEntry::problem
std::string removeFile(const std::string& path)
{
    return ::unlink(path.c_str()) == 0 ? std::string() : miscUtils::strerror_r_safe(errno);
}

} // unnamed namespace

CleanupResult removeDeadEntries(const std::string& baseDirectory, int stopFD)
{
    CleanupResult result;
    const std::string base = getBaseDirectory(baseDirectory);
    std::vector<Candidate> directories;
    for (const Candidate& candidate : findCandidates(base))
    {
        const std::string path = base + "/" + candidate.name;
        if (!isOld(candidate))
            ++result.numRecent;
        else if (candidate.kind == Kind::SendersDirectory)
            directories.push_back(candidate);
        else
            result.entries.push_back({path, removeFile(path)});
    }
    const Living living = directories.empty() ? Living() : findLiving(stopFD);
    result.notice = living.notice;
    for (const Candidate& candidate : directories)
    {
        const std::string path = base + "/" + candidate.name;
        DirectoryLock lock;
        if (!living.notice.empty() || living.directories.contains(candidate.name))
            continue;
        if (living.doubtfulUsers.contains(candidate.status.st_uid))
            ++result.numUncertain;
        else if (
            lockDirectory(path, candidate.status, lock) != EWOULDBLOCK &&
            !isServed(makeSocketFilePath(path)))
            result.entries.push_back({path, removeDirectory(path, candidate.status.st_uid)});
    }
    std::ranges::move(removeDeadRings(MinAgeSeconds), std::back_inserter(result.entries));
    std::sort(
        result.entries.begin(), result.entries.end(),
        [](const DeadEntry& left, const DeadEntry& right) { return left.path < right.path; });
    return result;
}

void removeOwnDeadDirectories(const std::string& baseDirectory)
{
    removeDeadRings();
    for (const Candidate& candidate : findCandidates(baseDirectory))
    {
        const std::string path = baseDirectory + "/" + candidate.name;
        DirectoryLock lock;
        // The sticky bit marks a directory that was locked.
        if (candidate.kind == Kind::SendersDirectory && candidate.status.st_uid == ::geteuid() &&
            (candidate.status.st_mode & S_ISVTX) != 0 &&
            lockDirectory(path, candidate.status, lock) == 0 && !isServed(makeSocketFilePath(path)))
            removeDirectory(path, candidate.status.st_uid);
    }
}

} // namespace vlx::kit
