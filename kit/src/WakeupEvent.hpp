#pragma once

#include <cerrno>
#include <cstdint>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "base/Descriptors.hpp"
#include "base/OwnedDescriptor.hpp"

namespace vlx::kit
{

/// Wakes a thread that waits for it or for a descriptor. Wakes before a wait are kept, as a single
/// one.
class WakeupEvent
{
public:
    WakeupEvent() : m_event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    /// @return whether a descriptor was available at construction
    bool isOpen() const
    {
        return m_event.isOpen();
    }

    /// @thread any
    void wake() const
    {
        constexpr std::uint64_t One = 1;
        while (::write(m_event.get(), &One, sizeof(One)) < 0 && errno == EINTR)
        {
        }
    }

    /// Waits for a wake, for input from a descriptor, or for the timeout.
    ///
    /// @param inputFD  descriptor to wait for; -1: only for a wake
    /// @thread one at a time
    void wait(int timeoutMs, int inputFD = -1) const
    {
        pollfd entries[] = {{m_event.get(), POLLIN, 0}, {inputFD, POLLIN, 0}};
        pollUninterrupted(entries, 2, timeoutMs);
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t size = ::read(m_event.get(), &count, sizeof(count));
    }

private:
    const OwnedDescriptor m_event;
};

} // namespace vlx::kit
