#pragma once

#include <string>

namespace vlx::kit
{

/// Whose receivers may join a stream's main channel.
enum class SocketMode
{
    /// Only those of the sender's user.
    Owner,
    /// Also those of the sender's group.
    Group,
    /// Everybody's, as the sender's directory allows.
    All,
};

/// Sets who may join the main channel of a sender of this process.
///
/// The library creates the socket file under the process's umask, and with the usual one another
/// user's receiver joins and never gets a frame. Call this after initializeSender() and
/// startNewSequence(). A pipeline sender has no socket file, and nothing is done for it.
///
/// @param name  the name under which the sender was initialised
/// @return empty if it was done; otherwise one line that says what went wrong
/// @thread any
std::string setSocketFileMode(const std::string& name, SocketMode mode);

} // namespace vlx::kit
