#include <algorithm>
#include <cctype>
#include <string_view>

#include "AudioInput.hpp"
#include "ByteSource.hpp"

namespace vlx::tool
{

namespace
{

using audioUtils::PcmFormat;

constexpr std::size_t ChunkHeader = 8;
constexpr std::size_t FirstChunk = 12;
constexpr std::size_t ShortestFormat = 16;
constexpr std::size_t SubFormatPlace = 24;
// Pictures and the like stand before the samples.
constexpr std::uint64_t LongestHeader = 16 << 20;
// From here on a length means that its writer did not know it.
constexpr std::uint64_t Endless = 0x7FFF'0000;
constexpr std::uint64_t Endless64 = 1ULL << 62;

std::uint64_t readNumber(std::string_view bytes, std::size_t place, std::size_t size)
{
    std::uint64_t number = 0;
    for (std::size_t i = size; i > 0; --i)
        number = number << 8 | static_cast<unsigned char>(bytes[place + i - 1]);
    return number;
}

/// @return the bytes from a place on; fewer if the file ends before
std::string_view peekAt(ByteSource& source, std::uint64_t place, std::size_t size)
{
    const std::string_view known = source.peek(static_cast<std::size_t>(place) + size);
    return known.size() < place ? std::string_view() : known.substr(place, size);
}

/// @return unset for samples that a stream does not carry as they are
std::optional<kit::StreamFormat> readFormat(std::string_view chunk)
{
    constexpr std::uint64_t Integers = 1, Floats = 3, Extensible = 0xFFFE;
    if (chunk.size() < ShortestFormat)
        return std::nullopt;
    std::uint64_t tag = readNumber(chunk, 0, 2);
    if (tag == Extensible && chunk.size() >= SubFormatPlace + 2)
        tag = readNumber(chunk, SubFormatPlace, 2);
    const std::uint64_t channels = readNumber(chunk, 2, 2);
    const std::uint64_t rate = readNumber(chunk, 4, 4);
    const std::uint64_t sampleBytes = readNumber(chunk, 12, 2);
    const std::uint64_t bits = readNumber(chunk, 14, 2);
    // The stream announces the channels in one byte.
    if (channels == 0 || channels > UINT8_MAX || rate == 0 || sampleBytes * 8 != channels * bits)
        return std::nullopt;

    struct Row
    {
        std::uint64_t tag;
        std::uint64_t bits;
        PcmFormat format;
    };
    constexpr Row Rows[] = {{Integers, 8, PcmFormat::U8},     {Integers, 16, PcmFormat::S16LE},
                            {Integers, 24, PcmFormat::S24LE}, {Integers, 32, PcmFormat::S32LE},
                            {Floats, 32, PcmFormat::F32LE},   {Floats, 64, PcmFormat::F64LE}};
    for (const Row& row : Rows)
    {
        if (row.tag == tag && row.bits == bits)
            return kit::StreamFormat{
                row.format, static_cast<std::uint32_t>(rate), static_cast<std::uint32_t>(channels)};
    }
    return std::nullopt;
}

/// @return whether another chunk stands there, that ends within the file
bool isChunk(ByteSource& source, std::uint64_t place, std::uint64_t fileEnd)
{
    if (place + ChunkHeader > fileEnd)
        return false;
    const std::string_view header = peekAt(source, place, ChunkHeader);
    return header.size() == ChunkHeader &&
           std::all_of(
               header.begin(), header.begin() + 4,
               [](unsigned char c) { return std::isalnum(c) != 0 || c == ' ' || c == '_'; }) &&
           place + ChunkHeader + readNumber(header, 4, 4) <= fileEnd;
}

/// @param place    of the first sample
/// @param length   as the header says
/// @param fileEnd  as the header says
/// @return bytes of samples; unset: up to the end
std::optional<std::uint64_t>
judgeLength(ByteSource& source, std::uint64_t place, std::uint64_t length, std::uint64_t fileEnd)
{
    const bool isFinished = fileEnd != 0 && fileEnd < Endless64;
    if (length == 0)
        return isFinished && isChunk(source, place, fileEnd) ? std::optional<std::uint64_t>(0)
                                                             : std::nullopt;
    if (length < Endless)
        return length;
    if (length >= Endless64)
        return std::nullopt;
    // A length that is true is that of a file so long, or of one with something behind its samples.
    const bool isWhole = source.isFile() && source.getSize() >= place + length;
    const bool isFollowed = isFinished && fileEnd > place + length + length % 2;
    return isWhole || isFollowed ? std::optional(length) : std::nullopt;
}

} // unnamed namespace

std::optional<WavSamples> findWavSamples(ByteSource& source)
{
    const std::string begin(source.peek(FirstChunk));
    if (begin.size() < FirstChunk || !begin.ends_with("WAVE"))
        return std::nullopt;
    const bool isLong = begin.starts_with("RF64");
    if (!isLong && !begin.starts_with("RIFF"))
        return std::nullopt;

    std::uint64_t fileEnd = readNumber(begin, 4, 4) == 0 ? 0 : readNumber(begin, 4, 4) + 8;
    std::optional<std::uint64_t> longLength; // of the samples
    std::optional<kit::StreamFormat> format;
    for (std::uint64_t place = FirstChunk; place < LongestHeader;)
    {
        const std::string header(peekAt(source, place, ChunkHeader));
        if (header.size() < ChunkHeader)
            return std::nullopt;
        const std::uint64_t size = readNumber(header, 4, 4);
        place += ChunkHeader;
        if (header.starts_with("data"))
        {
            if (!format)
                return std::nullopt;
            const std::uint64_t length = isLong && longLength ? *longLength : size;
            return WavSamples{*format, place, judgeLength(source, place, length, fileEnd)};
        }
        constexpr std::size_t LongestNeeded = 40;
        const std::string_view content =
            peekAt(source, place, std::min<std::size_t>(size, LongestNeeded));
        if (header.starts_with("fmt "))
            format = readFormat(content);
        if (isLong && header.starts_with("ds64") && content.size() >= 16)
        {
            fileEnd = readNumber(content, 0, 8);
            longLength = readNumber(content, 8, 8);
        }
        place += size + size % 2;
    }
    return std::nullopt;
}

} // namespace vlx::tool
