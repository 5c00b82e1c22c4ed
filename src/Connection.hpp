#pragma once

// Connections between two processes that need not trust one another.

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace vlx
{

/// Closes the descriptors that came in with a message. A TCP socket that lingers would hold the
/// close for as long as its sender likes.
inline void closePassedDescriptors(msghdr& message)
{
    constexpr linger NoLinger{0, 0};
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header))
    {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
            continue;
        for (std::size_t offset = CMSG_LEN(0); offset < header->cmsg_len; offset += sizeof(int))
        {
            int fd = -1;
            std::memcpy(&fd, reinterpret_cast<const char*>(header) + offset, sizeof(fd));
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &NoLinger, sizeof(NoLinger));
            ::close(fd);
        }
    }
}

/// As recv(), and never waits: neither for bytes that do not come after all, since an urgent one is
/// thrown away, nor for descriptors that came along, which are closed.
inline ssize_t receiveWithoutWaiting(int fd, void* buffer, std::size_t size)
{
    constexpr std::size_t MaxPassedDescriptors = 253; // the kernel passes no more at once
    alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(MaxPassedDescriptors * sizeof(int))>
        control;
    iovec part{buffer, size};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t count = ::recvmsg(fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    const int error = errno;
    if (count >= 0)
        closePassedDescriptors(message);
    errno = error;
    return count;
}

/// Ends a connection in both directions, and does not wait for what lies in it unread, which would
/// otherwise be closed with it.
inline void closeConnection(int fd)
{
    constexpr std::size_t ScratchBytes = 4096;
    ::shutdown(fd, SHUT_RDWR);
    std::array<unsigned char, ScratchBytes> scratch;
    while (receiveWithoutWaiting(fd, scratch.data(), scratch.size()) > 0)
    {
    }
    ::close(fd);
}

} // namespace vlx
