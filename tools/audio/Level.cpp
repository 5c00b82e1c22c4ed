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

double measurePeak(const ByteView& bytes, audioUtils::PcmFormat format)
{
    SampleValues values;
    decodeSamples(bytes, format, values);
    return std::visit(
        [](const auto& vector)
        {
            using Value = typename std::decay_t<decltype(vector)>::value_type;
            double peak = 0;
            for (const Value value : vector)
                peak = std::max(peak, std::abs(static_cast<double>(value)));
            return peak / getFullScale<Value>();
        },
        values);
}

double toDecibels(double level)
{
    constexpr double Lowest = -120;
    return level > 0 ? std::max(20 * std::log10(level), Lowest) : Lowest;
}

} // namespace vlx::tool
