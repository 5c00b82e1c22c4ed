#pragma once

#include <cerrno>
#include <cstdint>

#include <Descriptors.hpp>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace vlx::kit
{

/// Wakes a thread that waits for it or for a descriptor. Wakes before a wait are kept, as a single
/// one.
class WakeupEvent
{
public:
    WakeupEvent() : m_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    ~WakeupEvent()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }

    WakeupEvent(const WakeupEvent&) = delete;
    WakeupEvent& operator=(const WakeupEvent&) = delete;

    /// @return whether a descriptor was available at construction
    bool isOpen() const
    {
        return m_fd >= 0;
    }

    /// @thread any
    void wake() const
    {
        constexpr std::uint64_t One = 1;
        while (::write(m_fd, &One, sizeof(One)) < 0 && errno == EINTR)
        {
        }
    }

    /// Waits for a wake, for input from a descriptor, or for the timeout.
    ///
    /// @param inputFD  descriptor to wait for; -1: only for a wake
    /// @thread one at a time
    void wait(int timeoutMs, int inputFD = -1) const
    {
        pollfd entries[] = {{m_fd, POLLIN, 0}, {inputFD, POLLIN, 0}};
        pollUninterrupted(entries, 2, timeoutMs);
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t size = ::read(m_fd, &count, sizeof(count));
    }

private:
    const int m_fd;
};

} // namespace vlx::kit
