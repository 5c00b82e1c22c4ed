#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include <vlxkit/Discovery.hpp>

namespace vlx::kit
{

/// What the system tells of the senders of this machine.
struct SenderSearch
{
    SenderList list;
    /// Users with a process that sends under a name that could not be found out: hidden ones, and
    /// those of another network namespace.
    std::vector<uid_t> doubtfulUsers;
    /// Names of the senders' directories in which somebody serves a socket, without their paths.
    std::vector<std::string> servedDirectories;
    /// Senders may be missing.
    bool isIncomplete = false;
};

/// @thread any
SenderSearch searchSenders();

/// @return name of the sender's directory in a path below one; otherwise empty
std::string findSenderDirectoryName(const std::string& path);

} // namespace vlx::kit
