#pragma once

#include <string>

#include <sys/types.h>

#include <vlx/SideChannel.hpp>
#include <vlxkit/Producer.hpp>

#include "DirectoryLock.hpp"

namespace vlx::kit
{

/// Asks a sender of this process, by its name, where its socket file is: only what it announces
/// tells.
///
/// @return the path; empty if the sender does not answer in time
/// @thread any
std::string findSocketFile(const std::string& name);

/// @return the umask under which to initialise a sender, so that its socket file is not open
///         to more processes than it should be until protectSocketFile() is called
mode_t toUmask(SocketMode mode);

/// Sets who may join the main channel of a sender of this process, and keeps everybody else from
/// putting anything into its directory.
///
/// The library leaves the directory open to everyone, and gives the socket file the mode that the
/// process's umask leaves: under the usual one another user's receiver joins and never gets a
/// frame, and whoever replaces the file by a directory has nanomsg abort the process when it
/// closes. So the directory is narrowed first; what somebody else has put there before is then
/// found and removed.
///
/// Call this directly after initializeSender() and startNewSequence().
///
/// @param lock  gets the lock of the directory; to be kept until the sender has been shut down
/// @return empty if it was done; otherwise one line that says what went wrong. The sender can then
///         be shut down without harm, and should be
/// @thread any
std::string protectSocketFile(
    const std::string& path,
    NanomsgProtocol protocol,
    SocketMode mode,
    DirectoryLock& lock);

} // namespace vlx::kit
