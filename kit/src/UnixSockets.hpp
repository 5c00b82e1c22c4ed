#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace vlx::kit
{

/// A Unix-domain stream socket of this network namespace, as the kernel knows it.
struct UnixSocket
{
    bool isListening = false;
    /// Connected, and accepted if it is the listening side's end.
    bool isConnected = false;
    /// Connected, but the other end has been closed. False if that is unknown.
    bool isPeerGone = false;
    /// Address: the path of a file, or a 0 byte and a name of the abstract namespace. An accepted
    /// socket has the name of the one that listens.
    std::string name;
    /// Inode number of its file, in 32 bits, also of an accepted socket; 0 if there is none, or it
    /// is unknown.
    std::uint32_t fileInode = 0;
};

/// All of them.
struct UnixSockets
{
    std::unordered_map<std::uint64_t, UnixSocket> byInode;
    /// Some sockets are missing, since a process has put forged lines into the kernel's text.
    bool isIncomplete = false;
    /// They have the numbers of their files.
    bool hasFiles = false;
};

/// Lists the sockets by socket diagnosis, whose names are bytes; where the kernel has none, by
/// "/proc/net/unix".
///
/// @thread any
UnixSockets readUnixSockets();

/// Parses the text of "/proc/net/unix". A name can contain newlines and so forge lines: a line that
/// does not parse, the socket before it, and each socket that occurs twice are left out.
UnixSockets parseUnixSockets(std::istream& text);

/// Counts the connections of a listening socket whose other end is open.
///
/// @param name  as in UnixSocket
/// @thread any
std::size_t countConnections(const UnixSockets& sockets, std::string_view name);

/// The same for a socket file, whatever the path by which it was bound.
///
/// @return nothing if the system does not say which file a socket has
std::optional<std::size_t>
countConnectionsToFile(const UnixSockets& sockets, const std::string& path);

} // namespace vlx::kit
