#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>

#include <fcntl.h>
#include <poll.h>

namespace vlx
{

/// Sets close-on-exec: a program started by the host would otherwise keep a connection open after
/// the host has died.
inline void setCloseOnExec(int fd)
{
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
}

/// For pollUninterrupted(): waits until something happens.
inline constexpr int NoTimeout = -1;

/// Calls poll(), restarting it with the whole timeout when a signal interrupts it.
inline int pollUninterrupted(pollfd* entries, std::size_t count, int timeoutMs)
{
    int result = 0;
    do
    {
        result = ::poll(entries, static_cast<nfds_t>(count), timeoutMs);
    } while (result < 0 && errno == EINTR);
    return result;
}

/// Calls poll() with a deadline, however often signals interrupt it.
inline int
pollUntil(pollfd* entries, std::size_t count, std::chrono::steady_clock::time_point deadline)
{
    using Milliseconds = std::chrono::milliseconds;
    int result = 0;
    do
    {
        const auto left =
            std::chrono::ceil<Milliseconds>(deadline - std::chrono::steady_clock::now());
        const int timeoutMs = static_cast<int>(std::max<Milliseconds::rep>(left.count(), 0));
        result = ::poll(entries, static_cast<nfds_t>(count), timeoutMs);
    } while (result < 0 && errno == EINTR);
    return result;
}

} // namespace vlx
