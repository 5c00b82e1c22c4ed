#pragma once

/// Format of an uncompressed stream, and conversions between samples and time.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include <audioUtils/PcmFormat.hpp>
#include <vlx/VlxTypes.hpp>

namespace vlx::kit
{

/// Format of an uncompressed stream. In the kit a "sample" is one value of every channel.
struct StreamFormat
{
    static constexpr std::uint32_t MaxRate = 768'000; ///< highest supported rate
    static constexpr std::uint32_t MaxChannels = 255; ///< limit of the PCM codec header

    /// Format of the value of one channel.
    audioUtils::PcmFormat sampleFormat = audioUtils::PcmFormat::S16LE;
    std::uint32_t rate = 48000; ///< samples per second, at least 1
    std::uint32_t channels = 2; ///< interleaved channels, at least 1

    /// @return whether producer and consumer support the format: 1 to MaxRate samples per second, 1
    ///         to MaxChannels channels, and a valid sample format
    bool isSupported() const
    {
        return rate >= 1 && rate <= MaxRate && channels >= 1 && channels <= MaxChannels &&
               audioUtils::bytesPerFrame(sampleFormat, 1) != 0;
    }

    /// Compares all fields.
    bool operator==(const StreamFormat&) const = default;

    /// @return bytes of one sample of every channel; at least 1, even for an invalid format, so
    ///         that it can be a divisor
    std::size_t getBytesPerSample() const
    {
        return std::max<std::size_t>(audioUtils::bytesPerFrame(sampleFormat, channels), 1);
    }

    /// Converts a number of samples to their duration.
    ///
    /// @return nanoseconds, rounded down once; exact for any number of samples
    TimeValue toNanoseconds(std::uint64_t samples) const
    {
        constexpr TimeValue Second = 1'000'000'000;
        return samples / rate * Second + samples % rate * Second / rate;
    }

    /// Converts a duration to a number of samples.
    ///
    /// @return number of samples, rounded to nearest
    std::uint64_t toSamples(TimeValue nanoseconds) const
    {
        constexpr TimeValue Second = 1'000'000'000;
        return nanoseconds / Second * rate + (nanoseconds % Second * rate + Second / 2) / Second;
    }
};

/// @return the format as text, such as "S16LE, 48000 Hz, 2 channels"
inline std::string toText(const StreamFormat& format)
{
    return std::string(audioUtils::toString(format.sampleFormat)) + ", " +
           std::to_string(format.rate) + " Hz, " + std::to_string(format.channels) +
           (format.channels == 1 ? " channel" : " channels");
}

} // namespace vlx::kit
