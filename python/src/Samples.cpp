// Samples of the twelve formats as numpy arrays.

#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

#include "Support.hpp"

namespace vlx::python
{

namespace
{

using audioUtils::PcmFormat;

// In the order of PcmFormat.
constexpr std::array<SampleType, audioUtils::NumPcmFormats> Types = {{
    {"S8", "i1", "b", 1},
    {"U8", "u1", "B", 1},
    {"S16LE", "<i2", "h", 1},
    {"S16BE", ">i2", "h", 1},
    {"S24LE", "u1", "B", 3},
    {"S24BE", "u1", "B", 3},
    {"S32LE", "<i4", "il", 1},
    {"S32BE", ">i4", "il", 1},
    {"F32LE", "<f4", "f", 1},
    {"F32BE", ">f4", "f", 1},
    {"F64LE", "<f8", "d", 1},
    {"F64BE", ">f8", "d", 1},
}};

constexpr double FullScale = 2147483648.0;

template <std::size_t Size, bool IsBig>
std::uint64_t readBits(const std::uint8_t* bytes)
{
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < Size; ++i)
        bits = bits << 8 | bytes[IsBig ? i : Size - 1 - i];
    return bits;
}

template <std::size_t Size, bool IsBig>
double readInteger(const std::uint8_t* bytes)
{
    const auto bits = static_cast<std::uint32_t>(readBits<Size, IsBig>(bytes)) << (32 - 8 * Size);
    return static_cast<std::int32_t>(bits) / FullScale;
}

double readUnsigned(const std::uint8_t* bytes)
{
    return (*bytes - 128) / 128.0;
}

template <bool IsBig>
double readFloat(const std::uint8_t* bytes)
{
    return std::bit_cast<float>(static_cast<std::uint32_t>(readBits<4, IsBig>(bytes)));
}

template <bool IsBig>
double readDouble(const std::uint8_t* bytes)
{
    return std::bit_cast<double>(readBits<8, IsBig>(bytes));
}

using Reader = double (*)(const std::uint8_t* bytes);

/// A sample as a number, full scale at 1; in the order of PcmFormat.
constexpr std::array<Reader, audioUtils::NumPcmFormats> Readers = {
    readInteger<1, false>, readUnsigned,         readInteger<2, false>, readInteger<2, true>,
    readInteger<3, false>, readInteger<3, true>, readInteger<4, false>, readInteger<4, true>,
    readFloat<false>,      readFloat<true>,      readDouble<false>,     readDouble<true>};

std::int32_t toInteger(double value)
{
    using Limits = std::numeric_limits<std::int32_t>;
    const double scaled = std::nearbyint(value * FullScale);
    if (std::isnan(scaled))
        return 0;
    return static_cast<std::int32_t>(std::clamp<double>(scaled, Limits::min(), Limits::max()));
}

std::size_t toIndex(const kit::StreamFormat& format)
{
    return static_cast<std::size_t>(format.sampleFormat);
}

template <typename Value, typename Convert>
py::array convertAll(
    const kit::StreamFormat& format,
    const std::uint8_t* data,
    std::size_t numBytes,
    Convert convert)
{
    const auto numSamples = static_cast<py::ssize_t>(numBytes / format.getBytesPerSample());
    py::array_t<Value> result({numSamples, static_cast<py::ssize_t>(format.channels)});
    const Reader read = Readers[toIndex(format)];
    const std::size_t size = audioUtils::bytesPerSample(format.sampleFormat);
    Value* const values = result.mutable_data();
    for (std::size_t i = 0; i < static_cast<std::size_t>(result.size()); ++i)
        values[i] = convert(read(data + i * size));
    return result;
}

} // unnamed namespace

const SampleType& getSampleType(const kit::StreamFormat& format)
{
    return Types[toIndex(format)];
}

PcmFormat toSampleFormat(const std::string& name)
{
    for (std::size_t i = 0; i < Types.size(); ++i)
    {
        if (name == Types[i].name)
            return static_cast<PcmFormat>(i);
    }
    raise(kit::ErrorCode::InvalidArgument, "unknown sample format \"" + name + "\"");
}

py::array
makeArray(const kit::StreamFormat& format, const void* data, std::size_t numBytes, py::handle owner)
{
    const SampleType& type = getSampleType(format);
    std::vector<py::ssize_t> shape = {
        static_cast<py::ssize_t>(numBytes / format.getBytesPerSample()),
        static_cast<py::ssize_t>(format.channels)};
    if (type.numParts > 1)
        shape.push_back(static_cast<py::ssize_t>(type.numParts));
    return {py::dtype(type.dtype), std::move(shape), data, owner};
}

py::array toFloat(const kit::StreamFormat& format, const std::uint8_t* data, std::size_t numBytes)
{
    return convertAll<float>(
        format, data, numBytes, [](double value) { return static_cast<float>(value); });
}

py::array toInt32(const kit::StreamFormat& format, const std::uint8_t* data, std::size_t numBytes)
{
    return convertAll<std::int32_t>(format, data, numBytes, toInteger);
}

} // namespace vlx::python
