#pragma once

/// Caps as text, for streams of any media.

#include <memory>
#include <string>
#include <string_view>

#include <gst/gst.h>

namespace vlx::gst
{

struct CapsDeleter
{
    void operator()(GstCaps* caps) const
    {
        gst_caps_unref(caps);
    }
};

/// Owns one reference.
using CapsPtr = std::unique_ptr<GstCaps, CapsDeleter>;

/// Converts a text from another process to caps.
///
/// Accepts only what gst_caps_to_string() writes for fixed caps of one structure in system memory.
/// Fields must be numbers, fractions, strings, bit masks, buffers, or flat arrays of these. Any
/// other text never reaches GStreamer's parser of caps. "codec_data" must be a buffer, and
/// "streamheader" an array of buffers.
///
/// GStreamer never releases a name. Caps may therefore have at most 64 fields, with names of at
/// most 63 bytes, and a process accepts at most 16,384 different names.
///
/// @param text  any bytes
/// @return null if the text is not accepted
/// @pre gst_init() was called
CapsPtr parseCaps(std::string_view text);

/// Converts caps to text, without checking them.
///
/// @return such as "video/x-raw, format=(string)I420"; parseCaps() may refuse it
std::string toText(const GstCaps* caps);

} // namespace vlx::gst
