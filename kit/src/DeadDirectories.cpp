#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <memory>
#include <set>

#include <Guards.hpp>
#include <SenderDirectory.hpp>
#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Discovery.hpp>

#include "SenderSearch.hpp"

namespace vlx::kit
{

namespace
{

// A starting sender's directory is empty for a moment.
constexpr std::time_t MinAgeSeconds = 60;

constexpr auto AnswerTimeout = std::chrono::milliseconds(500);

constexpr std::size_t RandomCharacters = 6;

// The one entry of a sender's directory.
constexpr const char* SocketFileName = "nanomsgChannel.ipc";

/// Directories that look like a sender's, and are old enough to be judged.
struct Candidate
{
    std::string name;
    uid_t user;
};

bool isSendersName(const std::string& name)
{
    const std::string_view prefix = SenderDirectoryPrefix;
    return name.starts_with(prefix) && name.size() == prefix.size() + RandomCharacters;
}

std::vector<Candidate> findCandidates(const std::string& baseDirectory)
{
    std::vector<Candidate> candidates;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(
        ::opendir(baseDirectory.c_str()), ::closedir);
    while (const dirent* const entry = directory ? ::readdir(directory.get()) : nullptr)
    {
        struct stat status = {};
        if (isSendersName(entry->d_name) &&
            ::fstatat(::dirfd(directory.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISDIR(status.st_mode) && std::time(nullptr) - status.st_mtime > MinAgeSeconds)
            candidates.push_back({entry->d_name, status.st_uid});
    }
    return candidates;
}

/// What must not be touched.
struct Living
{
    std::set<std::string> directories;
    std::set<uid_t> doubtfulUsers; // any directory of theirs can be a sender's that was not found
};

Living findLiving()
{
    const SenderSearch search = searchSenders();
    Living living{
        {search.servedDirectories.begin(), search.servedDirectories.end()},
        {search.doubtfulUsers.begin(), search.doubtfulUsers.end()}};
    for (const SenderEntry& sender : search.list.senders)
    {
        if (!sender.socketFile.empty())
            continue; // served
        const SenderProbe answer = probeSender(sender.name, AnswerTimeout);
        if (answer.initialInfo)
            living.directories.insert(findSenderDirectoryName(answer.initialInfo->nanomsgURI));
        else
            living.doubtfulUsers.insert(sender.user);
    }
    return living;
}

/// Finds servers that /proc does not show, those of other network namespaces.
bool isServed(const std::string& socketFile)
{
    sockaddr_un address{};
    if (socketFile.size() >= sizeof(address.sun_path))
        return true; // cannot be asked
    address.sun_family = AF_UNIX;
    socketFile.copy(address.sun_path, socketFile.size());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const ScopeGuard socketGuard([fd] { ::close(fd); });
    return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ||
           (errno != ECONNREFUSED && errno != ENOENT);
}

/// @return as DeadDirectory::problem
std::string removeDirectory(const std::string& path, uid_t user)
{
    // By descriptor: somebody could put a link to another directory in its place.
    const int fd = ::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return miscUtils::strerror_r_safe(errno);
    const ScopeGuard directoryGuard([fd] { ::close(fd); });
    struct stat status = {};
    if (::fstat(fd, &status) != 0 || status.st_uid != user)
        return "somebody has replaced it";

    // Nothing but a socket is removed; whatever else is there makes rmdir() fail.
    if (::fstatat(fd, SocketFileName, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISSOCK(status.st_mode) && ::unlinkat(fd, SocketFileName, 0) != 0)
        return miscUtils::strerror_r_safe(errno);
    return ::rmdir(path.c_str()) == 0 ? std::string() : miscUtils::strerror_r_safe(errno);
}

} // unnamed namespace

std::vector<DeadDirectory> removeDeadDirectories(const std::string& baseDirectory)
{
    std::vector<DeadDirectory> dead;
    const std::string base = baseDirectory.empty() ? getBaseDirectory() : baseDirectory;
    const std::vector<Candidate> candidates = findCandidates(base);
    if (candidates.empty())
        return dead;

    const Living living = findLiving();
    for (const Candidate& candidate : candidates)
    {
        const std::string path = base + "/" + candidate.name;
        if (!living.directories.contains(candidate.name) &&
            !living.doubtfulUsers.contains(candidate.user) &&
            !isServed(path + "/" + SocketFileName))
            dead.push_back({path, removeDirectory(path, candidate.user)});
    }
    std::sort(
        dead.begin(), dead.end(),
        [](const DeadDirectory& left, const DeadDirectory& right)
        { return left.path < right.path; });
    return dead;
}

} // namespace vlx::kit
