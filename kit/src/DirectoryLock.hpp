#pragma once

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace vlx::kit
{

/// Locks a sender's directory while it is in use. The system releases the lock when the process
/// ends, for whatever reason: if the lock of a kit's directory is free, its sender is dead. A
/// forked child that does not call exec holds the lock too.
///
/// The kit's directories have the sticky bit, which is set after the lock is taken.
class DirectoryLock
{
public:
    DirectoryLock() = default;

    ~DirectoryLock()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }

    DirectoryLock(DirectoryLock&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

    DirectoryLock& operator=(DirectoryLock&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }

    /// @param directoryFD  descriptor of the directory; may be opened with O_PATH
    /// @return 0; otherwise an error number: EWOULDBLOCK if another process holds the lock
    int take(int directoryFD)
    {
        DirectoryLock lock;
        lock.m_fd = ::openat(directoryFD, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (lock.m_fd < 0 || ::flock(lock.m_fd, LOCK_EX | LOCK_NB) != 0)
            return errno;
        *this = std::move(lock);
        return 0;
    }

private:
    int m_fd = -1;
};

} // namespace vlx::kit
