#pragma once

/// Caps of a stream's format, and back.

#include <optional>

#include <gst/gst.h>

#include <vlxkit/StreamFormat.hpp>

namespace vlx::gst
{

/// GStreamer's audio elements support 64 channels at most; audioconvert crashes already there.
inline constexpr unsigned MaxChannels = 63;

/// Caps of every stream that the elements support.
inline constexpr const char* TemplateCaps =
    "audio/x-raw, format = (string) { S8, U8, S16LE, S16BE, S24LE, S24BE, S32LE, S32BE, F32LE, "
    "F32BE, F64LE, F64BE }, layout = (string) interleaved, rate = (int) [ 1, max ], "
    "channels = (int) [ 1, 63 ]";

/// @return whether a stream's format is within the template
bool isInTemplate(const kit::StreamFormat& format);

/// Returns a format's caps. A stream carries no speaker positions: up to eight channels get the
/// usual ones, more get none.
///
/// @pre the format is within the template
/// @return a new reference
GstCaps* toCaps(const kit::StreamFormat& format);

/// @return nothing for caps that are not fixed, or not within the template
std::optional<kit::StreamFormat> toStreamFormat(const GstCaps* caps);

} // namespace vlx::gst
