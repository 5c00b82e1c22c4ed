#pragma once

#include <cerrno>
#include <cstddef>

#include <fcntl.h>
#include <poll.h>

namespace vlx
{

/// Keeps a descriptor out of the programs that the host process starts: a child that held our
/// socket would keep a connection open after the host has died.
inline void setCloseOnExec(int fd)
{
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
}

/// For pollUninterrupted(): waits until something happens.
inline constexpr int NoTimeout = -1;

/// poll that goes on, with the whole time-out, when a signal interrupts it.
inline int pollUninterrupted(pollfd* entries, std::size_t count, int timeoutMs)
{
    int result = 0;
    do
    {
        result = ::poll(entries, static_cast<nfds_t>(count), timeoutMs);
    } while (result < 0 && errno == EINTR);
    return result;
}

} // namespace vlx
