#pragma once

#include <algorithm>
#include <chrono>

namespace vlx::kit
{

/// What the transport needs, however short the frame is.
inline constexpr std::chrono::milliseconds MinTailWait{100};

/// @param frameDuration  of the last frame that was sent
/// @return how long to wait between the last frame and shutdownSender(): one frame, at least
///         100 ms. What has not left the process by then is lost
constexpr std::chrono::nanoseconds getTailWait(std::chrono::nanoseconds frameDuration)
{
    return std::max<std::chrono::nanoseconds>(frameDuration, MinTailWait);
}

} // namespace vlx::kit
