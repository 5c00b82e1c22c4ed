#include "UnixSockets.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <unordered_set>

#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/Guards.hpp"

namespace vlx::kit
{

namespace
{

// As socket diagnosis gives them.
constexpr unsigned EstablishedState = 1;
constexpr unsigned ListenState = 10;

// As /proc/net/unix writes them.
constexpr unsigned AcceptsConnectionsFlag = 0x10000;
constexpr unsigned ConnectedState = 3;
constexpr unsigned StreamType = 1;

constexpr std::size_t AnswerBytes = 32768; // the kernel fills no larger buffer

bool sendRequest(int fd)
{
    struct Request
    {
        nlmsghdr header;
        unix_diag_req body;
    } request = {};
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.body.sdiag_family = AF_UNIX;
    request.body.udiag_states = (1U << EstablishedState) | (1U << ListenState);
    request.body.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_VFS | UDIAG_SHOW_PEER;
    return ::send(fd, &request, sizeof(request), 0) == sizeof(request);
}

// Records, and the attributes in them, begin at such multiples.
constexpr std::size_t align(std::size_t size)
{
    return (size + NLMSG_ALIGNTO - 1) / NLMSG_ALIGNTO * NLMSG_ALIGNTO;
}

template <class Header>
std::optional<Header> readHeader(std::string_view bytes)
{
    Header header{};
    if (bytes.size() < sizeof(header))
        return std::nullopt;
    std::memcpy(&header, bytes.data(), sizeof(header));
    return header;
}

std::string_view skip(std::string_view bytes, std::size_t size)
{
    return bytes.substr(std::min(bytes.size(), align(size)));
}

void takeAttribute(unsigned type, std::string_view value, UnixSocket& socket)
{
    // A path ends in a 0 byte; a name that begins with one is all name.
    if (type == UNIX_DIAG_NAME)
        socket.name = value.starts_with('\0') ? value : value.substr(0, value.find('\0'));
    else if (type == UNIX_DIAG_VFS)
        socket.fileInode = readHeader<std::uint32_t>(value).value_or(0);
    else if (type == UNIX_DIAG_PEER)
        socket.isPeerGone = readHeader<std::uint32_t>(value) == 0U;
}

void takeSocket(std::string_view bytes, UnixSockets& sockets)
{
    const auto message = readHeader<unix_diag_msg>(bytes);
    if (!message || message->udiag_type != SOCK_STREAM || message->udiag_ino == 0)
        return; // a connection that is not accepted yet has no number
    UnixSocket socket;
    socket.isListening = message->udiag_state == ListenState;
    socket.isConnected = message->udiag_state == EstablishedState;
    bytes = skip(bytes, sizeof(*message));
    while (const auto attribute = readHeader<nlattr>(bytes))
    {
        if (attribute->nla_len < sizeof(*attribute) || attribute->nla_len > bytes.size())
            break;
        takeAttribute(
            attribute->nla_type,
            bytes.substr(sizeof(*attribute), attribute->nla_len - sizeof(*attribute)), socket);
        bytes = skip(bytes, attribute->nla_len);
    }
    sockets.byInode.insert_or_assign(message->udiag_ino, std::move(socket));
}

enum class Answer
{
    More,
    Done,
    Failed
};

Answer takeAnswer(std::string_view bytes, UnixSockets& sockets)
{
    while (const auto header = readHeader<nlmsghdr>(bytes))
    {
        if (header->nlmsg_type == NLMSG_DONE)
            return Answer::Done;
        if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY || header->nlmsg_len < sizeof(*header) ||
            header->nlmsg_len > bytes.size())
            return Answer::Failed;
        takeSocket(bytes.substr(sizeof(*header), header->nlmsg_len - sizeof(*header)), sockets);
        bytes = skip(bytes, header->nlmsg_len);
    }
    return Answer::More;
}

bool isOpen(const UnixSocket& socket)
{
    return socket.isConnected && !socket.isPeerGone;
}

/// @return nothing if the kernel offers no socket diagnosis
std::optional<UnixSockets> diagnoseUnixSockets()
{
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0)
        return std::nullopt;
    const ScopeGuard socketGuard([fd] { ::close(fd); });
    if (!sendRequest(fd))
        return std::nullopt;

    UnixSockets sockets;
    sockets.hasFiles = true;
    std::array<char, AnswerBytes> buffer;
    Answer answer = Answer::More;
    while (answer == Answer::More)
    {
        sockaddr_nl source{};
        socklen_t length = sizeof(source);
        const ssize_t size = ::recvfrom(
            fd, buffer.data(), buffer.size(), MSG_TRUNC, reinterpret_cast<sockaddr*>(&source),
            &length);
        if (size < 0 && errno == EINTR)
            continue;
        if (size <= 0 || static_cast<std::size_t>(size) > buffer.size())
            return std::nullopt;
        if (source.nl_pid == 0) // from the kernel
            answer = takeAnswer({buffer.data(), static_cast<std::size_t>(size)}, sockets);
    }
    return answer == Answer::Done ? std::optional(std::move(sockets)) : std::nullopt;
}

} // unnamed namespace

UnixSockets readUnixSockets()
{
    if (auto sockets = diagnoseUnixSockets())
        return std::move(*sockets);
    std::ifstream text("/proc/net/unix");
    UnixSockets sockets = parseUnixSockets(text);
    sockets.isIncomplete = sockets.isIncomplete || text.bad() || !text.eof();
    return sockets;
}

UnixSockets parseUnixSockets(std::istream& text)
{
    UnixSockets sockets;
    std::unordered_set<std::uint64_t> unknown;
    std::uint64_t previous = 0;
    std::string line;
    std::getline(text, line); // heading
    while (std::getline(text, line))
    {
        unsigned flags = 0;
        unsigned type = 0;
        unsigned state = 0;
        unsigned long inode = 0;
        int length = 0;
        // NOLINTNEXTLINE(cert-err34-c): the kernel's own fixed format, checked by the count
        const bool isLine = std::sscanf(
                                line.c_str(), "%*x: %*x %*x %x %x %x %lu%n", &flags, &type, &state,
                                &inode, &length) == 4;
        const std::string name = line.substr(static_cast<std::size_t>(length));
        if (!isLine || !(name.empty() || name.starts_with(' ')))
        {
            unknown.insert(previous);
            continue;
        }
        previous = inode;
        if (inode == 0) // connections that are not accepted yet
            continue;
        UnixSocket socket;
        socket.isListening = (flags & AcceptsConnectionsFlag) != 0;
        socket.isConnected = state == ConnectedState;
        if (!name.empty())
            socket.name = name.substr(1);
        if (socket.name.starts_with('@'))
            socket.name.front() = '\0';
        const bool isNew = sockets.byInode.try_emplace(inode, std::move(socket)).second;
        if (!isNew)
            unknown.insert(inode);
        else if (type != StreamType)
            sockets.byInode[inode] = {}; // only so that a second line with its inode is noticed
    }
    for (const std::uint64_t inode : unknown)
        sockets.byInode.erase(inode);
    sockets.isIncomplete = !unknown.empty();
    return sockets;
}

std::size_t countConnections(const UnixSockets& sockets, std::string_view name)
{
    const auto count = std::count_if(
        sockets.byInode.begin(), sockets.byInode.end(),
        [name](const auto& socket) { return isOpen(socket.second) && socket.second.name == name; });
    return static_cast<std::size_t>(count);
}

std::optional<std::set<std::uint64_t>>
findConnectionsToFile(const UnixSockets& sockets, const std::string& path)
{
    struct stat status = {};
    if (!sockets.hasFiles)
        return std::nullopt;
    std::set<std::uint64_t> found;
    if (::lstat(path.c_str(), &status) != 0)
        return found;
    const auto fileInode = static_cast<std::uint32_t>(status.st_ino);
    for (const auto& [inode, socket] : sockets.byInode)
        if (isOpen(socket) && socket.fileInode == fileInode)
            found.insert(inode);
    return found;
}

} // namespace vlx::kit
