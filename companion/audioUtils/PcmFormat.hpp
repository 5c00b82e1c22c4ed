#pragma once

/// Sample formats of uncompressed PCM audio, their sizes and their names. Header only; pure
/// functions, any thread.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace audioUtils
{

/// Sample format of interleaved PCM audio. The values are part of the wire format of streams and
/// never change. 24-bit samples are packed in three bytes.
enum class PcmFormat : std::int32_t
{
    S8 = 0,
    U8 = 1,
    S16LE = 2,
    S16BE = 3,
    S24LE = 4,
    S24BE = 5,
    S32LE = 6,
    S32BE = 7,
    F32LE = 8,
    F32BE = 9,
    F64LE = 10,
    F64BE = 11,
};

/// Number of formats; valid values run from 0 to one less.
inline constexpr std::size_t NumPcmFormats = 12;

/// @return whether the value is one of the twelve enumerators
constexpr bool isValid(PcmFormat format)
{
    const auto value = static_cast<std::int32_t>(format);
    return value >= 0 && value < static_cast<std::int32_t>(NumPcmFormats);
}

/// @return bytes that one sample of one channel takes; 0 for a value that is no enumerator
constexpr std::size_t bytesPerSample(PcmFormat format)
{
    constexpr std::array<std::size_t, NumPcmFormats> Sizes = {1, 1, 2, 2, 3, 3, 4, 4, 4, 4, 8, 8};
    return isValid(format) ? Sizes[static_cast<std::size_t>(format)] : 0;
}

/// @param numChannels  interleaved channels
/// @return bytes that one sample of every channel takes; 0 for a value that is no enumerator
constexpr std::size_t bytesPerFrame(PcmFormat format, std::size_t numChannels)
{
    return bytesPerSample(format) * numChannels;
}

/// @return the enumerator's name, such as "S16LE"; "unknown" for a value that is no enumerator
constexpr std::string_view toString(PcmFormat format)
{
    constexpr std::array<std::string_view, NumPcmFormats> Names = {
        "S8",    "U8",    "S16LE", "S16BE", "S24LE", "S24BE",
        "S32LE", "S32BE", "F32LE", "F32BE", "F64LE", "F64BE"};
    return isValid(format) ? Names[static_cast<std::size_t>(format)] : std::string_view("unknown");
}

/// Reads a format's name as users write it: any letter case, an optional '_' before the byte order
/// ("S16LE", "s16le", "S16_LE"), and no byte order ("s16") for little-endian.
///
/// @return the format, or nothing for any other text
constexpr std::optional<PcmFormat> toPcmFormat(std::string_view text)
{
    constexpr std::size_t LongestName = 6; // "S16_LE"
    if (text.size() > LongestName)
        return std::nullopt;

    std::array<char, LongestName> buffer{};
    std::size_t length = 0;
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        const char c = text[i];
        const bool separatesByteOrder =
            c == '_' && i + 3 == text.size() && (text[i + 2] == 'E' || text[i + 2] == 'e');
        if (!separatesByteOrder)
            buffer[length++] = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
    }

    const std::string_view name(buffer.data(), length);
    for (std::size_t i = 0; i < NumPcmFormats; ++i)
    {
        const auto format = static_cast<PcmFormat>(i);
        const std::string_view known = toString(format);
        const bool isLittleEndian = known.size() > 2 && known.substr(known.size() - 2) == "LE";
        if (name == known || (isLittleEndian && name == known.substr(0, known.size() - 2)))
            return format;
    }
    return std::nullopt;
}

} // namespace audioUtils
