#pragma once

/// Conversion between stream formats and caps.

#include <optional>

#include <gst/gst.h>

#include <vlxkit/StreamFormat.hpp>

namespace vlx::gst
{

/// GStreamer's audio elements support at most 64 channels; audioconvert crashes at 64.
inline constexpr unsigned MaxChannels = 63;

/// Caps of every stream that the elements support.
inline constexpr const char* TemplateCaps =
    "audio/x-raw, format = (string) { S8, U8, S16LE, S16BE, S24LE, S24BE, S32LE, S32BE, F32LE, "
    "F32BE, F64LE, F64BE }, layout = (string) interleaved, rate = (int) [ 1, max ], "
    "channels = (int) [ 1, 63 ]";

/// @return whether a stream's format is within the template
bool isInTemplate(const kit::StreamFormat& format);

/// Returns a format's caps. A stream has no speaker positions: up to eight channels get the default
/// ones, more channels get no positions.
///
/// @pre the format is within the template
/// @return a new reference
GstCaps* toCaps(const kit::StreamFormat& format);

/// @return the format; not set if the caps are not fixed, or not within the template
std::optional<kit::StreamFormat> toStreamFormat(const GstCaps* caps);

} // namespace vlx::gst
