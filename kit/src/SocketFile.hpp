#pragma once

#include <string>

#include <sys/types.h>

#include <vlx/SideChannel.hpp>
#include <vlxkit/Producer.hpp>
#include <vlxkit/Status.hpp>

#include "DirectoryLock.hpp"

namespace vlx::kit
{

/// Asks a sender of this process for the path of its socket file, which only its announcement has.
///
/// @return the path; empty if the sender does not answer in time
/// @thread any
std::string findSocketFile(const std::string& name);

/// @return umask to set while a sender is initialised, so that its socket file is never open to
///         more users than `mode` allows
mode_t toUmask(SocketMode mode);

/// Sets which users may join the main channel of a sender of this process, and protects its
/// directory from all others.
///
/// The library leaves the directory open to every user, and the process's umask decides the mode
/// of the socket file. Under the usual umask, another user's receiver joins and never gets a frame;
/// and a process that replaces the file by a directory makes nanomsg abort this process when it
/// closes the channel. So this function first restricts the directory, then removes any foreign
/// entry found in it.
///
/// Call it directly after initializeSender() and startNewSequence().
///
/// @param lock  receives the lock of the directory; keep it until the sender has been shut down
/// @return after a failure the sender can be shut down safely, and should be
/// @thread any
Status protectSocketFile(
    const std::string& path,
    NanomsgProtocol protocol,
    SocketMode mode,
    DirectoryLock& lock);

} // namespace vlx::kit
