#pragma once

#include <algorithm>
#include <chrono>

namespace vlx::kit
{

/// Shortest wait that the transport needs, for any length of frame.
inline constexpr std::chrono::milliseconds MinTailWait{100};

/// @param frameDuration  duration of the last frame that was sent
/// @return time to wait between the last frame and shutdownSender(): one frame, at least 100 ms.
///         Data that has not left the process by then is lost
constexpr std::chrono::nanoseconds getTailWait(std::chrono::nanoseconds frameDuration)
{
    return std::max<std::chrono::nanoseconds>(frameDuration, MinTailWait);
}

} // namespace vlx::kit
