#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace vlx::kit
{

/// Waits for a condition.
///
/// @param timeout  zero: does not wait; negative: no limit
template <typename Condition>
void waitFor(
    std::condition_variable& variable,
    std::unique_lock<std::mutex>& lock,
    std::chrono::nanoseconds timeout,
    Condition condition)
{
    // Longer waits would overflow the clock.
    constexpr std::chrono::nanoseconds MaxTimeout = std::chrono::hours(24 * 365);
    if (timeout.count() < 0)
        variable.wait(lock, condition);
    else if (timeout.count() > 0)
        variable.wait_for(lock, std::min(timeout, MaxTimeout), condition);
}

} // namespace vlx::kit
