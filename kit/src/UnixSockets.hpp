#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

namespace vlx::kit
{

/// A Unix-domain stream socket of this network namespace, as reported by the kernel.
struct UnixSocket
{
    bool isListening = false;
    /// Connected; on the listening side also accepted.
    bool isConnected = false;
    /// Connected, but the other end has been closed. False if unknown.
    bool isPeerGone = false;
    /// Address: the path of a file, or a 0 byte and a name of the abstract namespace. An accepted
    /// socket has the name of the listening one.
    std::string name;
    /// Inode number of its file, in 32 bits, also of an accepted socket; 0 if it has no file or the
    /// number is unknown.
    std::uint32_t fileInode = 0;
};

/// All Unix-domain stream sockets of this network namespace.
struct UnixSockets
{
    std::unordered_map<std::uint64_t, UnixSocket> byInode;
    /// Some sockets are missing, because a process has forged lines in the kernel's text.
    bool isIncomplete = false;
    /// Whether fileInode is known.
    bool hasFiles = false;
};

/// Lists the sockets by socket diagnosis, which reports names as bytes; if the kernel does not
/// support it, by "/proc/net/unix".
///
/// @thread any
UnixSockets readUnixSockets();

/// Parses the text of "/proc/net/unix". A name can contain newlines and so forge lines. A line that
/// does not parse, the socket before it, and each socket that occurs twice are omitted.
UnixSockets parseUnixSockets(std::istream& text);

/// Counts the connections of a listening socket whose other end is open.
///
/// @param name  as in UnixSocket
/// @thread any
std::size_t countConnections(const UnixSockets& sockets, std::string_view name);

/// Finds the connections to a socket file whose other end is open, whatever path it was bound by.
///
/// @return their sockets' inode numbers; not set if the system does not report the sockets' files
std::optional<std::set<std::uint64_t>>
findConnectionsToFile(const UnixSockets& sockets, const std::string& path);

} // namespace vlx::kit
