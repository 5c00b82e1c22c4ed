#pragma once

#include <algorithm>

namespace vlx::kit
{

/// Exponential back-off between failed attempts: each pause is twice the previous one, up to a
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

    /// Restarts with the first pause, after a success or when the cause of the failures is gone.
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
