#pragma once

#include <string>

#include <vlxkit/Producer.hpp>

namespace vlx::kit
{

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
