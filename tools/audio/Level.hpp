#pragma once

#include <vector>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::tool
{

/// How loud one channel is; 1 is full scale.
struct ChannelLevel
{
    double peak = 0;
    double rms = 0;
};

/// @param bytes  whole samples in the format
/// @return one entry for each channel
std::vector<ChannelLevel> measureLevels(const ByteView& bytes, const kit::StreamFormat& format);

/// @return decibels below full scale, never less than -120
double toDbfs(double level);

} // namespace vlx::tool
