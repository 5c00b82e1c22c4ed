#include <algorithm>
#include <bit>

#include <vlxkit/AgeHistogram.hpp>

namespace vlx::kit
{

namespace
{

// Buckets between a power of two and the next: a value lies within 1/64 of its bucket's middle.
constexpr std::size_t BucketsPerOctave = 32;
constexpr unsigned FirstOctave = 5; // below 32 each value has a bucket of its own

std::size_t toBucket(std::uint64_t value)
{
    if (value < BucketsPerOctave)
        return value;
    const auto octave = static_cast<unsigned>(std::bit_width(value)) - 1;
    const std::uint64_t place = (value >> (octave - FirstOctave)) % BucketsPerOctave;
    return (octave - FirstOctave + 1) * BucketsPerOctave + place;
}

struct Bucket
{
    std::uint64_t begin;
    std::uint64_t width;
};

Bucket toRange(std::size_t index)
{
    if (index < BucketsPerOctave)
        return {index, 1};
    const std::size_t shift = index / BucketsPerOctave - 1;
    return {(BucketsPerOctave + index % BucketsPerOctave) << shift, std::uint64_t{1} << shift};
}

} // unnamed namespace

void AgeHistogram::add(std::int64_t nanoseconds)
{
    const std::int64_t value = std::max<std::int64_t>(nanoseconds, 0);
    ++m_buckets[toBucket(static_cast<std::uint64_t>(value))];
    ++m_count;
    m_max = std::max(m_max, value);
}

AgeHistogram& AgeHistogram::operator-=(const AgeHistogram& earlier)
{
    std::size_t highest = 0;
    for (std::size_t i = 0; i < m_buckets.size(); ++i)
    {
        m_buckets[i] -= earlier.m_buckets[i];
        if (m_buckets[i] > 0)
            highest = i;
    }
    m_count -= earlier.m_count;
    const Bucket range = toRange(highest);
    m_max = std::min(m_max, static_cast<std::int64_t>(range.begin + range.width - 1));
    return *this;
}

std::optional<std::int64_t> AgeHistogram::getPercentile(double fraction) const
{
    if (m_count == 0)
        return std::nullopt;
    const double share = std::clamp(fraction, 0.0, 1.0);
    auto left = static_cast<std::uint64_t>(share * static_cast<double>(m_count - 1));
    std::size_t index = 0;
    while (left >= m_buckets[index])
        left -= m_buckets[index++];
    const Bucket range = toRange(index);
    return std::min(m_max, static_cast<std::int64_t>(range.begin + range.width / 2));
}

std::optional<std::int64_t> AgeHistogram::getMax() const
{
    if (m_count == 0)
        return std::nullopt;
    return m_max;
}

} // namespace vlx::kit
