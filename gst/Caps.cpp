#include "Caps.hpp"

#include <string>

#include <gst/audio/audio.h>

namespace vlx::gst
{

namespace
{

constexpr std::uint32_t MaxRate = G_MAXINT;

} // unnamed namespace

bool isPlayable(const kit::StreamFormat& format)
{
    return audioUtils::isValid(format.sampleFormat) && format.rate > 0 && format.rate <= MaxRate &&
           format.channels > 0 && format.channels <= MaxChannels;
}

bool isInSystemMemory(const GstCaps* caps, guint index)
{
    const GstCapsFeatures* const features = gst_caps_get_features(caps, index);
    return gst_caps_features_is_equal(features, GST_CAPS_FEATURES_MEMORY_SYSTEM_MEMORY) != FALSE;
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

CapsPtr selectPcm(const GstCaps* caps)
{
    static GstStaticCaps text = GST_STATIC_CAPS(
        "audio/x-raw, format = (string) { S8, U8, S16LE, S16BE, S24LE, S24BE, S32LE, S32BE, F32LE, "
        "F32BE, F64LE, F64BE }, layout = (string) interleaved, rate = (int) [ 1, max ], "
        "channels = (int) [ 1, 63 ]");
    const CapsPtr pcm(gst_static_caps_get(&text));
    // The function does not change its arguments.
    return CapsPtr(
        gst_caps_intersect_full(const_cast<GstCaps*>(caps), pcm.get(), GST_CAPS_INTERSECT_FIRST));
}

std::optional<kit::StreamFormat> toStreamFormat(const GstCaps* caps)
{
    if (!gst_caps_is_fixed(caps) || !isInSystemMemory(caps, 0))
        return std::nullopt;
    const GstStructure* const fields = gst_caps_get_structure(caps, 0);
    if (gst_structure_has_name(fields, "audio/x-raw") == FALSE)
        return std::nullopt;
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
    return isPlayable(format) ? std::optional(format) : std::nullopt;
}

} // namespace vlx::gst
