#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <span>
#include <vector>

namespace vlx::bench
{

/// @param sorted  ascending
/// @param share   0 to 1
/// @return the smallest value that at least this share of all values does not exceed; NaN if there
///         are none
inline double percentile(std::span<const double> sorted, double share)
{
    if (sorted.empty())
        return std::numeric_limits<double>::quiet_NaN();
    const double rank = std::ceil(share * static_cast<double>(sorted.size()));
    const auto index = static_cast<std::size_t>(std::max(rank, 1.0)) - 1;
    return sorted[std::min(index, sorted.size() - 1)];
}

inline double median(std::vector<double> values)
{
    std::erase_if(values, [](double value) { return std::isnan(value); });
    std::sort(values.begin(), values.end());
    if (values.empty())
        return std::numeric_limits<double>::quiet_NaN();
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

} // namespace vlx::bench
