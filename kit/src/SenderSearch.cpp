#include "SenderSearch.hpp"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <tuple>
#include <unordered_map>

#include <SenderDirectory.hpp>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vlx::kit
{

namespace
{

// The library names its threads.
constexpr std::string_view ListenerThreadName = "vlx-listener";

// The mode that a receiver in Pipeline gives to the socket that it has bound.
constexpr mode_t PipelineReceiverMode = 0622;

constexpr std::string_view SocketLinkPrefix = "socket:[";

// As /proc/net/unix writes them.
constexpr unsigned AcceptsConnectionsFlag = 0x10000;
constexpr unsigned StreamType = 1;
constexpr unsigned ConnectedState = 3;

struct UnixSocket
{
    bool isListening = false;
    bool isConnected = false;
    std::string name; // "@" stands for a 0 byte
};

// By inode number.
using UnixSockets = std::unordered_map<std::uint64_t, UnixSocket>;

UnixSockets readUnixSockets()
{
    UnixSockets sockets;
    std::ifstream table("/proc/net/unix");
    for (std::string line; std::getline(table, line);)
    {
        std::istringstream fields(line);
        std::string address;
        std::string references;
        std::string protocol;
        unsigned flags = 0;
        unsigned type = 0;
        unsigned state = 0;
        std::uint64_t inode = 0;
        UnixSocket entry;
        fields >> address >> references >> protocol >> std::hex >> flags >> type >> state >>
            std::dec >> inode;
        if (!fields || fields.get() != ' ' || !std::getline(fields, entry.name) ||
            type != StreamType)
            continue;
        entry.isListening = (flags & AcceptsConnectionsFlag) != 0;
        entry.isConnected = state == ConnectedState;
        // A name can hold a line that looks like another socket's: then neither is believed.
        const auto [position, isNew] = sockets.try_emplace(inode, std::move(entry));
        if (!isNew)
            position->second = {};
    }
    sockets.erase(0); // connections that nobody has accepted yet
    return sockets;
}

/// @return names in a directory; nothing if it cannot be read
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

/// @return the socket's inode number; nothing if the descriptor is no socket
std::optional<std::uint64_t> readSocketInode(const std::string& link)
{
    char target[64] = {};
    const ssize_t length = ::readlink(link.c_str(), target, sizeof(target));
    const std::string_view text(target, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    if (!text.starts_with(SocketLinkPrefix))
        return std::nullopt;
    return parseNumber<std::uint64_t>(text.substr(SocketLinkPrefix.size()));
}

/// @return the effective user; also of a process that the system shows as root's, to protect it
std::optional<uid_t> readUser(const std::string& process)
{
    std::ifstream status(process + "/status");
    for (std::string word; status >> word;)
    {
        uid_t real = 0;
        uid_t effective = 0;
        if (word == "Uid:" && status >> real >> effective)
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

/// A sender's listening socket differs from most others that a process may have.
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
           (status.st_mode & 0777) == PipelineReceiverMode;
}

/// What a process listens on.
struct Listeners
{
    std::vector<std::string> names;       // of senders
    std::vector<std::string> socketFiles; // of their main channels
};

/// @return nothing if only the process's user may look
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
        const auto found = sockets.find(*inode);
        if (found == sockets.end() || !found->second.isListening)
            continue;
        const std::string& name = found->second.name;
        if (name.starts_with('@') && isSendersDescriptor(process, descriptor))
            listeners.names.push_back(name.substr(1));
        else if (!findSenderDirectoryName(name).empty() && !isOfPipelineReceiver(name))
            listeners.socketFiles.push_back(name);
    }
    return listeners;
}

std::size_t countReceivers(const UnixSockets& sockets, const std::string& name)
{
    const auto count = std::count_if(
        sockets.begin(), sockets.end(),
        [address = "@" + name](const auto& socket)
        { return socket.second.isConnected && socket.second.name == address; });
    return static_cast<std::size_t>(count);
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
            {name, pid, readLine(process + "/comm"), *user, countReceivers(sockets, name),
             isOnlyOne ? listeners->socketFiles.front() : std::string()});
    }
}

} // unnamed namespace

std::string findSenderDirectoryName(const std::string& path)
{
    const std::size_t end = path.rfind('/');
    if (end == std::string::npos || end == 0)
        return {};
    const std::size_t begin = path.rfind('/', end - 1);
    const std::string name = path.substr(begin + 1, end - begin - 1); // a missing "/" counts as -1
    return name.starts_with(SenderDirectoryPrefix) ? name : std::string();
}

SenderSearch searchSenders()
{
    SenderSearch search;
    const UnixSockets sockets = readUnixSockets();
    for (const auto& [inode, socket] : sockets)
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
    return searchSenders().list;
}

} // namespace vlx::kit
