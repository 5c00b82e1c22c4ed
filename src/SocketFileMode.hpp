#pragma once

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Guards.hpp"

namespace vlx
{

/// Changes the mode of a socket file of the caller's own, and of nothing else: whoever may write in
/// its directory can put a link to any other file in its place, and chmod follows links.
///
/// @return 0; otherwise an error number: ELOOP for a link, ENOTSOCK for any other kind of file,
///         EPERM for another user's, or what the system said; nothing has then been changed
inline int changeSocketFileMode(const std::string& path, mode_t mode)
{
    // Looked at and changed through one descriptor, so that nothing can be swapped in between.
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

    // Such a descriptor cannot be given to fchmod.
    const std::string throughDescriptor = "/proc/self/fd/" + std::to_string(fd);
    return ::chmod(throughDescriptor.c_str(), mode) == 0 ? 0 : errno;
}

} // namespace vlx
