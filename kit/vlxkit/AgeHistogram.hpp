#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include <vlx/VlxTypes.hpp>

namespace vlx::kit
{

/// Histogram of frame ages, or of any durations. Its size is constant, however many are counted.
/// Percentiles are accurate to 1.6 %; the maximum is exact.
///
/// Subtract an earlier copy from a later one to get the ages counted in between.
///
/// @thread one at a time
class AgeHistogram
{
public:
    /// Counts one age.
    ///
    /// @param nanoseconds  the age; a negative one, caused by a small clock offset, counts as 0
    VLX_API void add(std::int64_t nanoseconds);

    /// Subtracts the counts of an earlier copy of this histogram. The maximum then is as accurate
    /// as a percentile.
    VLX_API AgeHistogram& operator-=(const AgeHistogram& earlier);

    /// @return number of counted ages
    std::uint64_t getCount() const
    {
        return m_count;
    }

    /// Returns a percentile: the age that a given fraction of all counted ages does not exceed.
    ///
    /// @param fraction  0 to 1; 0.5 is the median
    /// @return nanoseconds; not set if nothing was counted
    VLX_API std::optional<std::int64_t> getPercentile(double fraction) const;

    /// @return the largest counted age in nanoseconds; not set if nothing was counted
    VLX_API std::optional<std::int64_t> getMax() const;

private:
    static constexpr std::size_t NumBuckets = 59U * 32U; // up to the largest std::int64_t

    std::array<std::uint64_t, NumBuckets> m_buckets{};
    std::uint64_t m_count = 0;
    std::int64_t m_max = 0;
};

} // namespace vlx::kit
