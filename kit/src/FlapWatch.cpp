#include "FlapWatch.hpp"

#include <cstddef>

namespace vlx::kit
{

namespace
{

constexpr std::size_t LossLimit = 5;
constexpr miscUtils::TimeValue WindowNs = 1'000'000'000;

} // unnamed namespace

void FlapWatch::onSequence()
{
    m_losses.clear();
}

void FlapWatch::onLoss(miscUtils::TimeValue now)
{
    m_losses.push_back(now);
    while (m_losses.size() > LossLimit)
        m_losses.pop_front();
}

bool FlapWatch::isFlapping() const
{
    return m_losses.size() == LossLimit && m_losses.back() - m_losses.front() <= WindowNs;
}

} // namespace vlx::kit
