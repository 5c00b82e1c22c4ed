#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include <vlx/VlxTypes.hpp>

namespace vlx::kit
{

/// Counts ages of frames, or any durations, in buckets of constant relative width, so that a stream
/// of years takes no more memory than one of a second. A percentile is right within 1.6 %, the
/// largest value is exact.
///
/// Two copies of one histogram, taken at different times, give the ages in between by subtraction.
///
/// @thread one at a time
class AgeHistogram
{
public:
    /// Counts one age.
    ///
    /// @param nanoseconds  negative ones, of clocks that differ a little, count as 0
    VLX_API void add(std::int64_t nanoseconds);

    /// Takes away what an earlier copy of this histogram had counted. The largest value is then
    /// known by its bucket only.
    VLX_API AgeHistogram& operator-=(const AgeHistogram& earlier);

    /// @return how many were counted
    std::uint64_t getCount() const
    {
        return m_count;
    }

    /// Returns the age that a given fraction of the counted ones does not exceed.
    ///
    /// @param fraction  0 to 1; 0.5 is the median
    /// @return nanoseconds; nothing if nothing was counted
    VLX_API std::optional<std::int64_t> getPercentile(double fraction) const;

    /// @return nanoseconds; nothing if nothing was counted
    VLX_API std::optional<std::int64_t> getMax() const;

private:
    static constexpr std::size_t NumBuckets = 59U * 32U; // as far as the largest signed number

    std::array<std::uint64_t, NumBuckets> m_buckets{};
    std::uint64_t m_count = 0;
    std::int64_t m_max = 0;
};

} // namespace vlx::kit
