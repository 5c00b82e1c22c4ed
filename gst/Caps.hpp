#pragma once

/// Conversion between stream formats and caps.

#include <optional>

#include <gst/gst.h>

#include <vlxkit/StreamFormat.hpp>

#include "CapsText.hpp"

namespace vlx::gst
{

/// GStreamer's audio elements support at most 64 channels; audioconvert crashes at 64.
inline constexpr unsigned MaxChannels = 63;

/// @return whether GStreamer supports a stream's format
bool isPlayable(const kit::StreamFormat& format);

/// @return whether a structure of caps describes buffers in system memory
bool isInSystemMemory(const GstCaps* caps, guint index);

/// Returns a format's caps. A stream has no speaker positions: up to eight channels get the default
/// ones, more channels get no positions.
///
/// @pre isPlayable(format)
/// @return a new reference
GstCaps* toCaps(const kit::StreamFormat& format);

/// Selects what streams of PCM can have.
///
/// @param caps  of any media
/// @return empty if there is nothing
CapsPtr selectPcm(const GstCaps* caps);

/// @return the format, if the caps can be sent as PCM; not set for other caps
std::optional<kit::StreamFormat> toStreamFormat(const GstCaps* caps);

} // namespace vlx::gst
