#pragma once

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>

#include "base/OwnedDescriptor.hpp"

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
    /// @param directoryFD  descriptor of the directory; may be opened with O_PATH
    /// @return 0; otherwise an error number: EWOULDBLOCK if another process holds the lock
    int take(int directoryFD)
    {
        OwnedDescriptor directory(::openat(directoryFD, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!directory.isOpen() || ::flock(directory.get(), LOCK_EX | LOCK_NB) != 0)
            return errno;
        m_directory = std::move(directory);
        return 0;
    }

private:
    OwnedDescriptor m_directory;
};

} // namespace vlx::kit
