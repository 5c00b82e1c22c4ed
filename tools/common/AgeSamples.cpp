#include "AgeSamples.hpp"

#include <algorithm>

namespace vlx::tool
{

namespace
{

constexpr std::size_t MaxAges = 1 << 20;

} // unnamed namespace

void AgeSamples::add(std::int64_t ageNs)
{
    if (m_seen++ % m_stride != 0)
        return;
    if (m_ages.size() == MaxAges)
        halve();
    m_ages.push_back(ageNs);
}

std::optional<std::int64_t> AgeSamples::getPercentile(double share) const
{
    if (m_ages.empty())
        return std::nullopt;
    std::vector<std::int64_t> ages = m_ages;
    const auto index = static_cast<std::ptrdiff_t>(share * static_cast<double>(ages.size() - 1));
    std::nth_element(ages.begin(), ages.begin() + index, ages.end());
    return ages[static_cast<std::size_t>(index)];
}

void AgeSamples::halve()
{
    for (std::size_t i = 0; i < m_ages.size() / 2; ++i)
        m_ages[i] = m_ages[2 * i];
    m_ages.resize(m_ages.size() / 2);
    m_stride *= 2;
}

} // namespace vlx::tool
