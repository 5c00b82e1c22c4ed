#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace vlx::tool
{

/// Ages of frames on arrival, for percentiles. Exact for the first million; beyond that only every
/// second, fourth, eighth... age is kept, so that the memory stays bounded.
class AgeSamples
{
public:
    /// @param ageNs  negative if the frame is due in the future
    void add(std::int64_t ageNs);

    /// @param share  of ages that are not above the result, 0 to 1
    /// @return nothing if there are no ages
    std::optional<std::int64_t> getPercentile(double share) const;

private:
    void halve();

    std::vector<std::int64_t> m_ages;
    std::uint64_t m_stride = 1; // one in so many is kept
    std::uint64_t m_seen = 0;
};

} // namespace vlx::tool
