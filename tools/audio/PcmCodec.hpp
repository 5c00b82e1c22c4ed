#pragma once

#include <cstdint>
#include <variant>
#include <vector>

#include <audioUtils/PcmFormat.hpp>
#include <vlx/VlxTypes.hpp>

namespace vlx::tool
{

/// Sample values of all channels in the host's own types, as audio file libraries take them.
/// Integers fill their type from the top: an 8-bit sample stands in the uppermost byte.
using SampleValues =
    std::variant<std::vector<std::int32_t>, std::vector<float>, std::vector<double>>;

/// @return no values yet, of the type that holds every value of the format
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

/// Decodes values of any format as parts of full scale.
///
/// @param bytes   whole values
/// @param levels  replaced
void decodeLevels(const ByteView& bytes, audioUtils::PcmFormat format, std::vector<float>& levels);

/// @param bytes  whole values
/// @return the loudest value's distance from silence; 1 is full scale
double measurePeak(const ByteView& bytes, audioUtils::PcmFormat format);

/// @return a level in dBFS; at least -120, also for silence
double toDecibels(double level);

} // namespace vlx::tool
