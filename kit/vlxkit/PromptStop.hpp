#pragma once

#include <vlx/VlxTypes.hpp>

namespace vlx
{
class Receiver;
}

namespace vlx::kit
{

/// Shuts a receiver down without the 5 seconds that its monitor thread may sleep: while
/// shutdownReceiver() runs, a helper thread makes and removes an entry in the watched directory
/// again and again, at most 20 ms apart. Where that directory cannot be written, the stop takes as long as the library says,
/// and a WARN tells so.
///
/// The environment variable "TMPDIR" must be what it was when the receiver was initialised.
///
/// @param receiver  in any state, also never initialised
/// @thread as shutdownReceiver(): not from a callback, nor from two threads at once
VLX_API void stopPromptly(Receiver& receiver);

} // namespace vlx::kit
