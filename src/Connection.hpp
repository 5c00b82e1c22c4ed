#pragma once

// Connections between two processes that need not trust each other.
//
// A peer may pass descriptors. No passed descriptor is ever taken: closing it would drop the locks
// that this process holds on the same file, and may take long or for ever. So input is looked at
// before it is read, and a connection with descriptors in it is closed where nobody waits.

#include <array>
#include <cstddef>

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "CloseAside.hpp"

namespace vlx
{

/// Makes urgent bytes ordinary ones. Call it before the first read: an urgent byte that is thrown
/// away would take along, and close, a descriptor that was passed with it.
inline void keepUrgentBytesInLine(int fd)
{
    constexpr int Enabled = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_OOBINLINE, &Enabled, sizeof(Enabled));
}

/// Looks at what can be read now, and leaves it there.
///
/// @param hasDescriptors  becomes whether descriptors lie in it
/// @return as recv()
inline ssize_t peekInput(int fd, void* buffer, std::size_t size, bool& hasDescriptors)
{
    iovec part{buffer, size};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    // Without room for them, descriptors are reported and not taken.
    const ssize_t count = ::recvmsg(fd, &message, MSG_PEEK | MSG_DONTWAIT);
    hasDescriptors = count >= 0 && (message.msg_flags & MSG_CTRUNC) != 0;
    return count;
}

/// As recv(), and never waits. A peer that passes descriptors counts as gone, from the bytes on
/// that can be read together with the first of them.
///
/// @pre no other thread reads from the connection
inline ssize_t receiveWithoutWaiting(int fd, void* buffer, std::size_t size)
{
    bool hasDescriptors = false;
    const ssize_t count = peekInput(fd, buffer, size, hasDescriptors);
    if (hasDescriptors)
        return 0;
    // No more than was looked at: what has come since may hold descriptors.
    return count > 0 ? ::recv(fd, buffer, static_cast<std::size_t>(count), MSG_DONTWAIT) : count;
}

/// Takes what can still be read, as far as the first descriptor in it.
///
/// @return whether there was one
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

/// Ends a connection in both directions, and never waits for what its peer has put into it.
inline void closeConnection(int fd)
{
    ::shutdown(fd, SHUT_RDWR); // nothing can come any more
    if (drainInput(fd))
        closeAside(fd);
    else
        ::close(fd);
}

} // namespace vlx
