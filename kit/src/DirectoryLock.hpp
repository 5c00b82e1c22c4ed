#pragma once

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace vlx::kit
{

/// Tells other processes that a sender's directory is in use. The system releases the lock when the
/// process ends, however it ends: a directory of the kit whose lock is free is a dead one. A child
/// that is forked and does not call exec holds it too.
///
/// The kit's directories have the sticky bit, which is set when the lock is held already.
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

    /// @param directoryFD  of the directory; may be one for its path alone (O_PATH)
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
