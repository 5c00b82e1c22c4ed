#include "PcmCodec.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <type_traits>

namespace vlx::tool
{

namespace
{

using audioUtils::PcmFormat;

constexpr std::uint64_t UnsignedOffset = 0x80; // of U8, in the one byte that it has

/// The integer with as many bits as a value, for its bit pattern.
template <class Value>
using Bits = std::conditional_t<sizeof(Value) == 4, std::uint32_t, std::uint64_t>;

/// How one format lays its bits out.
template <class Value>
struct Layout
{
    explicit Layout(PcmFormat format)
        : size(audioUtils::bytesPerSample(format)),
          shift(8 * (sizeof(Value) - size)),
          bigEndian(static_cast<int>(format) % 2 == 1), // of each pair the second one
          flip(format == PcmFormat::U8 ? UnsignedOffset : 0)
    {
    }

    void store(Value value, unsigned char* bytes) const
    {
        const std::uint64_t bits =
            (std::uint64_t{std::bit_cast<Bits<Value>>(value)} >> shift) ^ flip;
        for (std::size_t i = 0; i < size; ++i)
            bytes[bigEndian ? size - 1 - i : i] = static_cast<unsigned char>(bits >> (8 * i));
    }

    Value load(const unsigned char* bytes) const
    {
        std::uint64_t bits = 0;
        for (std::size_t i = 0; i < size; ++i)
            bits |= std::uint64_t{bytes[bigEndian ? size - 1 - i : i]} << (8 * i);
        return std::bit_cast<Value>(static_cast<Bits<Value>>((bits ^ flip) << shift));
    }

    std::size_t size;
    std::size_t shift; // bits below the format's in the value
    bool bigEndian;
    std::uint64_t flip;
};

template <class Value>
void decode(const ByteView& bytes, PcmFormat format, std::vector<Value>& values)
{
    const Layout<Value> layout(format);
    values.resize(bytes.size() / layout.size);
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = layout.load(bytes.data() + i * layout.size);
}

} // unnamed namespace

SampleValues makeSampleValues(PcmFormat format)
{
    // The numbers of the formats grow with what they hold.
    if (format >= PcmFormat::F64LE)
        return std::vector<double>();
    if (format >= PcmFormat::F32LE)
        return std::vector<float>();
    return std::vector<std::int32_t>();
}

void encodeSamples(const SampleValues& values, PcmFormat format, Buffer& bytes)
{
    std::visit(
        [&](const auto& vector)
        {
            const Layout<typename std::decay_t<decltype(vector)>::value_type> layout(format);
            bytes.resize(vector.size() * layout.size);
            for (std::size_t i = 0; i < vector.size(); ++i)
                layout.store(vector[i], bytes.data() + i * layout.size);
        },
        values);
}

void decodeSamples(const ByteView& bytes, PcmFormat format, SampleValues& values)
{
    SampleValues wanted = makeSampleValues(format);
    if (values.index() != wanted.index())
        values = std::move(wanted);
    std::visit([&](auto& vector) { decode(bytes, format, vector); }, values);
}

void decodeLevels(const ByteView& bytes, PcmFormat format, std::vector<float>& levels)
{
    SampleValues values;
    decodeSamples(bytes, format, values);
    std::visit(
        [&](const auto& vector)
        {
            using Value = typename std::decay_t<decltype(vector)>::value_type;
            constexpr double Scale = std::is_integral_v<Value> ? 0x1p-31 : 1;
            levels.resize(vector.size());
            std::transform(
                vector.begin(), vector.end(), levels.begin(),
                [](Value value) { return static_cast<float>(static_cast<double>(value) * Scale); });
        },
        values);
}

double measurePeak(const ByteView& bytes, PcmFormat format)
{
    std::vector<float> levels;
    decodeLevels(bytes, format, levels);
    float peak = 0;
    for (const float level : levels)
        peak = std::max(peak, std::abs(level));
    return static_cast<double>(peak);
}

double toDecibels(double level)
{
    constexpr double Lowest = -120;
    return level > 0 ? std::max(20 * std::log10(level), Lowest) : Lowest;
}

} // namespace vlx::tool
