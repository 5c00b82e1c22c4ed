#pragma once

#include <string>

#include <vlx/VlxTypes.hpp>

namespace vlx
{
class Receiver;
}

namespace vlx::kit
{

/// Shuts a receiver down without waiting up to 5 seconds for its monitor thread. Meanwhile a helper
/// thread wakes the monitor: it creates and removes a file in the watched directory, at most every
/// 20 ms. If that directory is not writable, the stop takes up to 5 seconds, and a WARN is logged.
///
/// @param receiver   in any state, initialised or not
/// @param directory  directory that the receiver watches, as given to setBaseDirectory(); empty,
///                   the default: "TMPDIR", or "/tmp/vlx" if that is not set. TMPDIR must not have
///                   changed since the receiver was initialised
/// @thread as shutdownReceiver(): not from a callback, nor from two threads at once
VLX_API void stopPromptly(Receiver& receiver, const std::string& directory = {});

} // namespace vlx::kit
