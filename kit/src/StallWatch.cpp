#include "StallWatch.hpp"

#include <algorithm>

namespace vlx::kit
{

namespace
{

constexpr unsigned MaxDoublings = 4;

} // unnamed namespace

StallWatch::StallWatch(miscUtils::TimeValue limitNs) : m_limitNs(limitNs) {}

void StallWatch::onRunning(miscUtils::TimeValue now)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_running = true;
    m_lastSign = now;
}

void StallWatch::onNotRunning()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_running = false;
}

void StallWatch::onFrame(miscUtils::TimeValue now)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lastSign = now;
    m_vainRestarts = 0;
}

void StallWatch::onRestart()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_running = false;
    ++m_vainRestarts;
    ++m_restarts;
}

bool StallWatch::isStalled(miscUtils::TimeValue now) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto limit = m_limitNs << std::min(m_vainRestarts, MaxDoublings);
    return m_running && m_limitNs != 0 && now > m_lastSign && now - m_lastSign >= limit;
}

std::uint64_t StallWatch::getNumRestarts() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_restarts;
}

} // namespace vlx::kit
