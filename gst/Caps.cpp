#include "Caps.hpp"

#include <string>

#include <gst/audio/audio.h>

namespace vlx::gst
{

namespace
{

constexpr std::uint32_t MaxRate = G_MAXINT;

} // unnamed namespace

bool isInTemplate(const kit::StreamFormat& format)
{
    return audioUtils::isValid(format.sampleFormat) && format.rate > 0 && format.rate <= MaxRate &&
           format.channels > 0 && format.channels <= MaxChannels;
}

GstCaps* toCaps(const kit::StreamFormat& format)
{
    const std::string name(audioUtils::toString(format.sampleFormat));
    const auto channels = static_cast<gint>(format.channels);
    GstCaps* const caps = gst_caps_new_simple(
        "audio/x-raw", "format", G_TYPE_STRING, name.c_str(), "layout", G_TYPE_STRING,
        "interleaved", "rate", G_TYPE_INT, static_cast<gint>(format.rate), "channels", G_TYPE_INT,
        channels, nullptr);
    if (channels > 1)
        gst_caps_set_simple(
            caps, "channel-mask", GST_TYPE_BITMASK, gst_audio_channel_get_fallback_mask(channels),
            nullptr);
    return caps;
}

std::optional<kit::StreamFormat> toStreamFormat(const GstCaps* caps)
{
    if (!gst_caps_is_fixed(caps))
        return std::nullopt;
    const GstStructure* const fields = gst_caps_get_structure(caps, 0);
    const gchar* const name = gst_structure_get_string(fields, "format");
    const gchar* const layout = gst_structure_get_string(fields, "layout");
    gint rate = 0;
    gint channels = 0;
    if (name == nullptr || g_strcmp0(layout, "interleaved") != 0 ||
        gst_structure_get_int(fields, "rate", &rate) == FALSE ||
        gst_structure_get_int(fields, "channels", &channels) == FALSE)
        return std::nullopt;
    const auto sampleFormat = audioUtils::toPcmFormat(name);
    if (!sampleFormat)
        return std::nullopt;
    const kit::StreamFormat format{
        *sampleFormat, static_cast<std::uint32_t>(rate), static_cast<std::uint32_t>(channels)};
    return isInTemplate(format) ? std::optional(format) : std::nullopt;
}

} // namespace vlx::gst
