#pragma once

/// Sample formats of uncompressed PCM audio, with their sizes and names. All functions are pure:
/// call them from any thread.

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

/// Number of formats; valid values are 0 to NumPcmFormats - 1.
inline constexpr std::size_t NumPcmFormats = 12;

/// @return whether the value is one of the twelve enumerators
constexpr bool isValid(PcmFormat format)
{
    const auto value = static_cast<std::int32_t>(format);
    return value >= 0 && value < static_cast<std::int32_t>(NumPcmFormats);
}

/// @return bytes of one sample of one channel; 0 for an invalid format
constexpr std::size_t bytesPerSample(PcmFormat format)
{
    constexpr std::array<std::size_t, NumPcmFormats> Sizes = {1, 1, 2, 2, 3, 3, 4, 4, 4, 4, 8, 8};
    return isValid(format) ? Sizes[static_cast<std::size_t>(format)] : 0;
}

/// Returns the size of one sample of every channel.
///
/// @param format       format of one channel's sample
/// @param numChannels  number of interleaved channels
/// @return bytes of one sample of every channel; 0 for an invalid format
constexpr std::size_t bytesPerFrame(PcmFormat format, std::size_t numChannels)
{
    return bytesPerSample(format) * numChannels;
}

/// @return the enumerator's name, such as "S16LE"; "unknown" for an invalid format
constexpr std::string_view toString(PcmFormat format)
{
    constexpr std::array<std::string_view, NumPcmFormats> Names = {
        "S8",    "U8",    "S16LE", "S16BE", "S24LE", "S24BE",
        "S32LE", "S32BE", "F32LE", "F32BE", "F64LE", "F64BE"};
    return isValid(format) ? Names[static_cast<std::size_t>(format)] : std::string_view("unknown");
}

/// @return whether a text is ALSA's name for 24 bits in four bytes, "S24_LE" or "S24_BE" in any
///         letter case. It resembles the name of a PcmFormat, but is not one
constexpr bool isPaddedFormat(std::string_view text)
{
    return text.size() == 6 && (text[0] == 'S' || text[0] == 's') && text.substr(1, 3) == "24_" &&
           (text[4] == 'L' || text[4] == 'l' || text[4] == 'B' || text[4] == 'b') &&
           (text[5] == 'E' || text[5] == 'e');
}

/// Converts a format's name as users write it, in any letter case: with or without '_' before the
/// byte order ("S16LE", "S16_LE"), without a byte order for little-endian ("s16"), ALSA's
/// "FLOAT_LE", "FLOAT64_BE" and "S24_3LE", ffmpeg's "pcm_s16le".
///
/// @return the format; not set for any other text, including one that isPaddedFormat()
constexpr std::optional<PcmFormat> toPcmFormat(std::string_view text)
{
    constexpr std::array<std::array<std::string_view, 2>, 3> Spellings = {
        {{"FLOAT64", "F64"}, {"FLOAT", "F32"}, {"S24_3", "S24"}}};
    constexpr std::string_view Decoder = "PCM_";
    constexpr std::size_t LongestName = 14; // "PCM_FLOAT64_LE"
    constexpr std::size_t OrderLength = 2;
    if (text.size() > LongestName)
        return std::nullopt;

    std::array<char, LongestName> capitals{};
    for (std::size_t i = 0; i < text.size(); ++i)
        capitals[i] =
            text[i] >= 'a' && text[i] <= 'z' ? static_cast<char>(text[i] - 'a' + 'A') : text[i];
    std::string_view rest(capitals.data(), text.size());
    if (rest.starts_with(Decoder))
        rest.remove_prefix(Decoder.size());
    if (isPaddedFormat(rest))
        return std::nullopt;

    std::string_view order;
    if (rest.ends_with("LE") || rest.ends_with("BE"))
    {
        order = rest.substr(rest.size() - OrderLength);
        rest.remove_suffix(OrderLength);
        if (rest.ends_with('_'))
            rest.remove_suffix(1);
    }
    std::string_view stem;
    for (const auto& [theirs, ours] : Spellings)
    {
        if (!stem.empty() || !rest.starts_with(theirs))
            continue;
        stem = ours;
        rest.remove_prefix(theirs.size());
    }

    for (std::size_t i = 0; i < NumPcmFormats; ++i)
    {
        const auto format = static_cast<PcmFormat>(i);
        std::string_view known = toString(format);
        if (!known.starts_with(stem))
            continue;
        known.remove_prefix(stem.size());
        if (!known.starts_with(rest))
            continue;
        known.remove_prefix(rest.size());
        if (known == order || (order.empty() && known == "LE"))
            return format;
    }
    return std::nullopt;
}

} // namespace audioUtils
