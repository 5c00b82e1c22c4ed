#include "Level.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>

#include "PcmCodec.hpp"

namespace vlx::tool
{

namespace
{

template <class Value>
constexpr double getFullScale()
{
    if constexpr (std::is_floating_point_v<Value>)
        return 1;
    else
        return -static_cast<double>(std::numeric_limits<Value>::min());
}

} // unnamed namespace

std::vector<ChannelLevel> measureLevels(const ByteView& bytes, const kit::StreamFormat& format)
{
    std::vector<ChannelLevel> levels(format.channels);
    SampleValues values;
    decodeSamples(bytes, format.sampleFormat, values);
    std::visit(
        [&](const auto& vector)
        {
            using Value = typename std::decay_t<decltype(vector)>::value_type;
            for (std::size_t i = 0; i < vector.size(); ++i)
            {
                const double value = static_cast<double>(vector[i]) / getFullScale<Value>();
                ChannelLevel& level = levels[i % format.channels];
                level.peak = std::max(level.peak, std::abs(value));
                level.rms += value * value;
            }
            const auto numSamples = static_cast<double>(vector.size() / format.channels);
            for (ChannelLevel& level : levels)
                level.rms = numSamples > 0 ? std::sqrt(level.rms / numSamples) : 0;
        },
        values);
    return levels;
}

double toDbfs(double level)
{
    constexpr double Lowest = -120;
    return level > 0 ? std::max(20 * std::log10(level), Lowest) : Lowest;
}

} // namespace vlx::tool
