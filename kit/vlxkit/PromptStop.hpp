#pragma once

#include <string>

#include <vlx/VlxTypes.hpp>

namespace vlx
{
class Receiver;
}

namespace vlx::kit
{

/// Shuts a receiver down without the 5 seconds that its monitor thread may sleep: while
/// shutdownReceiver() runs, a helper thread creates and removes an entry in the watched directory
/// again and again, at most 20 ms apart. Where that directory is not writable, the stop takes as
/// long as the library says, and a WARN reports it.
///
/// @param receiver   in any state, also never initialised
/// @param directory  the directory that the receiver watches, as given to setBaseDirectory();
///                   empty: "TMPDIR", or "/tmp/vlx", which must be what it was when the receiver
///                   was initialised
/// @thread as shutdownReceiver(): not from a callback, nor from two threads at once
VLX_API void stopPromptly(Receiver& receiver, const std::string& directory = {});

} // namespace vlx::kit
