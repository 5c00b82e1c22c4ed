#include "PcmCodec.hpp"

#include <bit>
#include <cstddef>
#include <type_traits>

namespace vlx::tool
{

namespace
{

using audioUtils::PcmFormat;

constexpr std::uint64_t UnsignedOffset = 0x80; // of U8, in the one byte that it has

bool isBigEndian(PcmFormat format)
{
    switch (format)
    {
    case PcmFormat::S16BE:
    case PcmFormat::S24BE:
    case PcmFormat::S32BE:
    case PcmFormat::F32BE:
    case PcmFormat::F64BE:
        return true;
    case PcmFormat::S8:
    case PcmFormat::U8:
    case PcmFormat::S16LE:
    case PcmFormat::S24LE:
    case PcmFormat::S32LE:
    case PcmFormat::F32LE:
    case PcmFormat::F64LE:
        return false;
    }
    return false;
}

/// The integer with as many bits as a value, for its bit pattern.
template <class Value>
using Bits = std::conditional_t<
    sizeof(Value) == 2,
    std::uint16_t,
    std::conditional_t<sizeof(Value) == 4, std::uint32_t, std::uint64_t>>;

/// How one format lays its bits out.
template <class Value>
struct Layout
{
    explicit Layout(PcmFormat format)
        : size(audioUtils::bytesPerSample(format)),
          shift(8 * (sizeof(Value) - size)),
          bigEndian(isBigEndian(format)),
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

} // unnamed namespace

SampleValues makeSampleValues(PcmFormat format)
{
    switch (format)
    {
    case PcmFormat::S8:
    case PcmFormat::U8:
    case PcmFormat::S16LE:
    case PcmFormat::S16BE:
        return std::vector<std::int16_t>();
    case PcmFormat::S24LE:
    case PcmFormat::S24BE:
    case PcmFormat::S32LE:
    case PcmFormat::S32BE:
        return std::vector<std::int32_t>();
    case PcmFormat::F32LE:
    case PcmFormat::F32BE:
        return std::vector<float>();
    case PcmFormat::F64LE:
    case PcmFormat::F64BE:
        return std::vector<double>();
    }
    return {};
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
    std::visit(
        [&](auto& vector)
        {
            const Layout<typename std::decay_t<decltype(vector)>::value_type> layout(format);
            vector.resize(bytes.size() / layout.size);
            for (std::size_t i = 0; i < vector.size(); ++i)
                vector[i] = layout.load(bytes.data() + i * layout.size);
        },
        values);
}

} // namespace vlx::tool
