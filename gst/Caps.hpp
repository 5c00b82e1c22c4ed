#pragma once

/// Caps of a stream's format, and back.

#include <optional>

#include <gst/gst.h>

#include <vlxkit/StreamFormat.hpp>

namespace vlx::gst
{

/// Caps of every stream that there can be.
inline constexpr const char* TemplateCaps =
    "audio/x-raw, format = (string) { S8, U8, S16LE, S16BE, S24LE, S24BE, S32LE, S32BE, F32LE, "
    "F32BE, F64LE, F64BE }, layout = (string) interleaved, rate = (int) [ 1, max ], "
    "channels = (int) [ 1, max ]";

/// A stream carries no speaker positions: more than two channels get the usual ones, and none from
/// nine channels on.
///
/// @return a new reference
GstCaps* toCaps(const kit::StreamFormat& format);

/// @return nothing for caps that are not fixed, or not within the template
std::optional<kit::StreamFormat> toStreamFormat(const GstCaps* caps);

} // namespace vlx::gst
