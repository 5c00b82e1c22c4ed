#pragma once

#include <cstdint>
#include <variant>
#include <vector>

#include <audioUtils/PcmFormat.hpp>
#include <vlx/VlxTypes.hpp>

namespace vlx::tool
{

/// Sample values of all channels in the host's own types, as audio file libraries take them.
/// Integers fill their type from the top: an 8-bit sample stands in the upper byte, a 24-bit one in
/// the upper three.
using SampleValues = std::variant<
    std::vector<std::int16_t>,
    std::vector<std::int32_t>,
    std::vector<float>,
    std::vector<double>>;

/// @return no values yet, of the type that holds every value of the format: 16 bits for formats of
///         8 and 16 bits, 32 bits for those of 24 and 32
SampleValues makeSampleValues(audioUtils::PcmFormat format);

/// Turns values into a stream's bytes. Nothing is rounded: bits below the format's are cut.
///
/// @param values  of the type that makeSampleValues() gives for the format
/// @param bytes   replaced; its capacity stays
void encodeSamples(const SampleValues& values, audioUtils::PcmFormat format, Buffer& bytes);

/// The reverse of encodeSamples(), exact for every format.
///
/// @param bytes   whole values
/// @param values  replaced, and made the type that the format asks for
void decodeSamples(const ByteView& bytes, audioUtils::PcmFormat format, SampleValues& values);

} // namespace vlx::tool
