// Parses caps from another process. Accepted caps are fixed, survive a conversion to text and back,
// and work with buffers of any size. GStreamer's warnings stop the process.

#include <string>

#include <gst/MediaFormat.hpp>

#include <vlxkit/Media.hpp>

#include "support/Fuzz.hpp"

namespace
{

using namespace vlx;
using fuzz::check;
using gst::MediaFormat;

bool initialize()
{
    gst_init(nullptr, nullptr);
    g_log_set_default_handler(
        [](const gchar*, GLogLevelFlags, const gchar* text, gpointer) { check(false, text); },
        nullptr);
    return true;
}

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool isInitialized = initialize();
    check(isInitialized, "initialised");
    const auto format =
        MediaFormat::parse({static_cast<const char*>(static_cast<const void*>(data)), size});
    if (!format)
        return 0;
    check(gst_caps_is_fixed(format->getCaps()) != FALSE, "fixed caps");
    const std::string text = gst::toText(format->getCaps());
    if (text.size() > kit::MaxMediaCapsBytes)
        return 0;
    const auto again = MediaFormat::parse(text);
    check(again.has_value(), "caps that were accepted are accepted again");
    check(gst_caps_is_equal(again->getCaps(), format->getCaps()) != FALSE, "the same caps");
    check(format->estimateSize() == again->estimateSize(), "the same size");
    check(!format->isWhole(0), "no empty buffer");
    check(format->getDuration(size) == again->getDuration(size), "the same duration");
    GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, size, nullptr);
    if (format->isWhole(size))
        format->describe(buffer);
    Buffer packed(format->getPackedSize(buffer));
    check(format->pack(buffer, packed.data()), "a buffer is packed");
    gst_buffer_unref(buffer);
    return 0;
}
