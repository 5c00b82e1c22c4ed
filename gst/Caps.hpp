#pragma once

/// Conversion between stream formats and caps.

#include <optional>

#include <gst/gst.h>

#include <vlxkit/StreamFormat.hpp>

namespace vlx::gst
{

/// GStreamer's audio elements support at most 64 channels; audioconvert crashes at 64.
inline constexpr unsigned MaxChannels = 63;

/// @return whether elements can be given a stream's format
bool isPlayable(const kit::StreamFormat& format);

/// @return whether a structure of caps requires nothing but ordinary memory
bool isInSystemMemory(const GstCaps* caps, guint index);

/// Returns a format's caps. A stream has no speaker positions: up to eight channels get the default
/// ones, more channels get no positions.
///
/// @pre isPlayable(format)
/// @return a new reference
GstCaps* toCaps(const kit::StreamFormat& format);

/// @return the format of PCM streams; not set for caps that are not fixed, and for other media
std::optional<kit::StreamFormat> toStreamFormat(const GstCaps* caps);

} // namespace vlx::gst
