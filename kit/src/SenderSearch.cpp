#include "SenderSearch.hpp"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <tuple>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/SenderDirectory.hpp"

namespace vlx::kit
{

namespace
{

// The library names its threads.
constexpr std::string_view ListenerThreadName = "vlx-listener";

constexpr std::string_view SocketLinkPrefix = "socket:[";

/// @return names in a directory; not set if it cannot be read
std::optional<std::vector<std::string>> listNames(const std::string& path)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path.c_str()), ::closedir);
    if (!directory)
        return std::nullopt;
    std::vector<std::string> names;
    while (const dirent* const entry = ::readdir(directory.get()))
    {
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    }
    return names;
}

std::string readLine(const std::string& path)
{
    std::string line;
    std::getline(std::ifstream(path), line);
    return line;
}

template <class Number>
std::optional<Number> parseNumber(std::string_view text)
{
    Number number{};
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() ? std::optional(number) : std::nullopt;
}

/// @return the socket's inode number; not set if the descriptor is not a socket
std::optional<std::uint64_t> readSocketInode(const std::string& link)
{
    char target[64] = {};
    const ssize_t length = ::readlink(link.c_str(), target, sizeof(target));
    const std::string_view text(target, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    if (!text.starts_with(SocketLinkPrefix))
        return std::nullopt;
    return parseNumber<std::uint64_t>(text.substr(SocketLinkPrefix.size()));
}

/// @return the effective user, even of a protected process whose files belong to root
std::optional<uid_t> readUser(const std::string& process)
{
    std::ifstream status(process + "/status");
    // By lines: the process name, on another line, may contain any text.
    for (std::string line; std::getline(status, line);)
    {
        unsigned effective = 0;
        if (std::sscanf(line.c_str(), "Uid: %*u %u", &effective) == 1)
            return effective;
    }
    return std::nullopt;
}

bool hasListenerThread(const std::string& process)
{
    const auto threads = listNames(process + "/task");
    return threads &&
           std::any_of(
               threads->begin(), threads->end(),
               [&process](const std::string& thread)
               { return readLine(process + "/task/" + thread + "/comm") == ListenerThreadName; });
}

/// @return whether the descriptor's flags are those of a sender's listening socket
bool isSendersDescriptor(const std::string& process, const std::string& descriptor)
{
    std::ifstream info(process + "/fdinfo/" + descriptor);
    for (std::string word; info >> word;)
    {
        unsigned flags = 0;
        if (word == "flags:" && info >> std::oct >> flags)
            return (flags & O_NONBLOCK) != 0 && (flags & O_CLOEXEC) != 0;
    }
    return false;
}

bool isOfPipelineReceiver(const std::string& socketFile)
{
    struct stat status = {};
    return ::lstat(socketFile.c_str(), &status) == 0 &&
           (status.st_mode & 0777) == PipelineSocketMode;
}

/// Sockets on which a process listens.
struct Listeners
{
    std::vector<std::string> names;       // of senders
    std::vector<std::string> socketFiles; // of their main channels
};

/// @return not set if this user may not inspect the process
std::optional<Listeners> findListeners(const std::string& process, const UnixSockets& sockets)
{
    const std::string directory = process + "/fd";
    const auto descriptors = listNames(directory);
    if (!descriptors)
        return std::nullopt;

    Listeners listeners;
    for (const std::string& descriptor : *descriptors)
    {
        const auto inode = readSocketInode(std::string(directory).append("/").append(descriptor));
        if (!inode)
            continue;
        const auto found = sockets.byInode.find(*inode);
        if (found == sockets.byInode.end() || !found->second.isListening)
            continue;
        const std::string& name = found->second.name;
        if (name.starts_with('\0') && isSendersDescriptor(process, descriptor))
            listeners.names.push_back(name.substr(1));
        else if (!findSenderDirectoryName(name).empty() && !isOfPipelineReceiver(name))
            listeners.socketFiles.push_back(name);
    }
    return listeners;
}

void searchProcess(pid_t pid, const UnixSockets& sockets, SenderSearch& search)
{
    const std::string process = "/proc/" + std::to_string(pid);
    if (!hasListenerThread(process))
        return;
    const auto listeners = findListeners(process, sockets);
    const auto user = readUser(process);
    if (!user)
        return; // it has just ended
    if (!listeners)
        search.list.hidden.push_back(pid);
    if (!listeners || listeners->names.empty())
        search.doubtfulUsers.push_back(*user);
    if (!listeners)
        return;

    // Which of several senders serves which of several files, the kernel does not tell.
    const bool isOnlyOne = listeners->names.size() == 1 && listeners->socketFiles.size() == 1;
    for (const std::string& name : listeners->names)
    {
        search.list.senders.push_back(
            {name, pid, readLine(process + "/comm"), *user, countConnections(sockets, '\0' + name),
             isOnlyOne ? listeners->socketFiles.front() : std::string()});
    }
}

} // unnamed namespace

SenderSearch searchSenders(const UnixSockets& sockets)
{
    SenderSearch search;
    search.isIncomplete = sockets.isIncomplete;
    if (sockets.isIncomplete)
        search.list.notice = "the list may be incomplete: /proc/net/unix has forged lines, and "
                             "this kernel has no socket diagnosis (unix_diag)";
    for (const auto& [inode, socket] : sockets.byInode)
    {
        const std::string directory = findSenderDirectoryName(socket.name);
        if (!directory.empty())
            search.servedDirectories.push_back(directory);
    }
    for (const std::string& entry : listNames("/proc").value_or(std::vector<std::string>()))
    {
        if (const auto pid = parseNumber<pid_t>(entry))
            searchProcess(*pid, sockets, search);
    }
    std::sort(
        search.list.senders.begin(), search.list.senders.end(),
        [](const SenderEntry& left, const SenderEntry& right)
        { return std::tie(left.name, left.process) < std::tie(right.name, right.process); });
    return search;
}

SenderList listSenders()
{
    return searchSenders(readUnixSockets()).list;
}

} // namespace vlx::kit
