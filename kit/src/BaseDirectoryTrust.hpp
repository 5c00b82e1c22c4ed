#pragma once

#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace vlx::kit
{

/// Checks that no other user can rename or replace the senders' directories in a base directory.
/// The owner of a directory can, whatever its mode; so can every user that may write to a directory
/// without the sticky bit.
///
/// @param status  status of the directory, from the descriptor that is used afterwards, if any
/// @return empty if the directory can be trusted; otherwise the reason, as the end of a sentence
///         that begins with the directory's path
/// @thread any
inline std::string findDistrust(const struct stat& status)
{
    constexpr uid_t Root = 0;
    if (status.st_uid != Root && status.st_uid != ::geteuid())
        return "belongs to user " + std::to_string(status.st_uid) +
               ", which could replace every stream in it";
    const bool isShared = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    if (isShared && (status.st_mode & S_ISVTX) == 0)
        return "has no sticky bit, so other users could replace every stream in it";
    return {};
}

} // namespace vlx::kit
