#pragma once

#include <algorithm>

namespace vlx::kit
{

/// Pauses between attempts that fail again and again: each twice as long as the one before, up to a
/// limit.
class RetryPause
{
public:
    RetryPause(int firstMs, int limitMs) : m_firstMs(firstMs), m_limitMs(limitMs) {}

    /// @return milliseconds to wait before the next attempt
    int getNext()
    {
        const int pauseMs = m_nextMs == 0 ? m_firstMs : m_nextMs;
        m_nextMs = std::min(2 * pauseMs, m_limitMs);
        return pauseMs;
    }

    /// An attempt has succeeded, or what it failed at is gone.
    void reset()
    {
        m_nextMs = 0;
    }

private:
    const int m_firstMs;
    const int m_limitMs;
    int m_nextMs = 0; // 0: the first
};

} // namespace vlx::kit
