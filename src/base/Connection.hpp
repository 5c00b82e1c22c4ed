#pragma once

// Connections between two processes that do not trust each other.
//
// A peer may pass descriptors. They are never received: closing one would drop the locks that this
// process holds on the same file, and may take long or block forever. So input is peeked at before
// it is read, and a connection that contains descriptors is closed on a thread of its own.

#include <array>
#include <cstddef>

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "base/CloseAside.hpp"

namespace vlx
{

/// Makes urgent bytes ordinary ones. Call it before the first read: discarding an urgent byte would
/// receive, and close, a descriptor that was passed with it.
inline void keepUrgentBytesInLine(int fd)
{
    constexpr int Enabled = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_OOBINLINE, &Enabled, sizeof(Enabled));
}

/// Peeks at the data that can be read now, without removing it.
///
/// @param hasDescriptors  set to whether the data contains descriptors
/// @return as recv()
inline ssize_t peekInput(int fd, void* buffer, std::size_t size, bool& hasDescriptors)
{
    iovec part{buffer, size};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    // Without a control buffer, descriptors are reported but not received.
    const ssize_t count = ::recvmsg(fd, &message, MSG_PEEK | MSG_DONTWAIT);
    hasDescriptors = count >= 0 && (message.msg_flags & MSG_CTRUNC) != 0;
    return count;
}

/// Receives as recv() does, without waiting. A peer that passes descriptors counts as disconnected,
/// from the bytes on that would be read together with the first descriptor.
///
/// @pre no other thread reads from the connection
inline ssize_t receiveWithoutWaiting(int fd, void* buffer, std::size_t size)
{
    bool hasDescriptors = false;
    const ssize_t count = peekInput(fd, buffer, size, hasDescriptors);
    if (hasDescriptors)
        return 0;
    // At most the bytes that were peeked at: later ones may contain descriptors.
    return count > 0 ? ::recv(fd, buffer, static_cast<std::size_t>(count), MSG_DONTWAIT) : count;
}

/// Discards the data that can be read, up to the first descriptor in it.
///
/// @return whether there was a descriptor
inline bool drainInput(int fd)
{
    constexpr std::size_t ScratchBytes = 4096;
    std::array<unsigned char, ScratchBytes> scratch;
    bool hasDescriptors = false;
    ssize_t count = 0;
    do
    {
        count = peekInput(fd, scratch.data(), scratch.size(), hasDescriptors);
    } while (!hasDescriptors && count > 0 &&
             ::recv(fd, scratch.data(), static_cast<std::size_t>(count), MSG_DONTWAIT) > 0);
    return hasDescriptors;
}

/// Closes a connection, without waiting for anything that its peer has put into it.
inline void closeConnection(int fd)
{
    ::shutdown(fd, SHUT_RDWR); // no more data can arrive
    if (drainInput(fd))
        closeAside(fd);
    else
        ::close(fd);
}

} // namespace vlx
