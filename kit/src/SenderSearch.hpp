#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include <vlxkit/Discovery.hpp>

#include "UnixSockets.hpp"

namespace vlx::kit
{

/// Senders of this machine, as found in /proc and by socket diagnosis.
struct SenderSearch
{
    SenderList list;
    /// Users with a sender whose name is unknown: its process is hidden, or in another network
    /// namespace.
    std::vector<uid_t> doubtfulUsers;
    /// Names, without paths, of the senders' directories in which a process serves a socket.
    std::vector<std::string> servedDirectories;
    /// Whether senders may be missing.
    bool isIncomplete = false;
};

/// @param sockets  as they are now
/// @thread any
SenderSearch searchSenders(const UnixSockets& sockets);

} // namespace vlx::kit
