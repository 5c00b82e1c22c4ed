#pragma once

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Guards.hpp"

namespace vlx
{

/// Changes the mode of the caller's own socket file, and never of another file: a process with
/// write permission for the directory can replace the socket file by a link, which chmod() follows.
///
/// @return 0; otherwise an error number, with nothing changed: ELOOP for a link, ENOTSOCK for
///         another kind of file, EPERM for another user's file, or the system's error
inline int changeSocketFileMode(const std::string& path, mode_t mode)
{
    // Checked and changed through one descriptor, so that the file cannot be replaced in between.
    const int fd = ::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return errno;
    const ScopeGuard fileGuard([fd] { ::close(fd); });

    struct stat status = {};
    if (::fstat(fd, &status) != 0)
        return errno;
    if (S_ISLNK(status.st_mode))
        return ELOOP;
    if (!S_ISSOCK(status.st_mode))
        return ENOTSOCK;
    if (status.st_uid != ::geteuid())
        return EPERM;

    // fchmod() refuses a descriptor opened with O_PATH.
    const std::string throughDescriptor = "/proc/self/fd/" + std::to_string(fd);
    return ::chmod(throughDescriptor.c_str(), mode) == 0 ? 0 : errno;
}

} // namespace vlx
