#pragma once

#include <audioUtils/PcmFormat.hpp>
#include <vlx/VlxTypes.hpp>

namespace vlx::tool
{

/// @param bytes  whole values
/// @return the loudest value's distance from silence; 1 is full scale
double measurePeak(const ByteView& bytes, audioUtils::PcmFormat format);

/// @return a level in dBFS; at least -120, also for silence
double toDecibels(double level);

} // namespace vlx::tool
