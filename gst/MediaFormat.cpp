#include "MediaFormat.hpp"

#include <algorithm>
#include <bit>
#include <utility>

#include "Caps.hpp"

namespace vlx::gst
{

namespace
{

constexpr std::size_t MinPictureBytes = 65'536;
constexpr std::uint64_t MaxFrameNs = 60'000'000'000;

std::uint64_t scaleSeconds(std::uint64_t numerator, std::uint64_t denominator)
{
    return gst_util_uint64_scale(GST_SECOND, numerator, denominator);
}

/// @return the planes of planar audio; null for a buffer without them, or interleaved audio
const GstAudioMeta* findPlanes(GstBuffer* buffer)
{
    const GstAudioMeta* const meta = gst_buffer_get_audio_meta(buffer);
    return meta != nullptr && GST_AUDIO_INFO_LAYOUT(&meta->info) == GST_AUDIO_LAYOUT_NON_INTERLEAVED
               ? meta
               : nullptr;
}

struct Limit
{
    const char* field;
    gint max;
};

constexpr Limit Limits[] = {
    {"channels", MaxChannels}, {"rate", G_MAXINT}, {"width", 65'535},
    {"height", 65'535},        {"views", 64},
};

/// @return whether the numbers of raw media are within limits that GStreamer does not check
bool isInLimits(const GstStructure* fields)
{
    gint pixelWidth = 1;
    gint frames = 0;
    gint denominator = 1;
    gst_structure_get_fraction(fields, "pixel-aspect-ratio", &pixelWidth, &denominator);
    gst_structure_get_fraction(fields, "framerate", &frames, &denominator);
    const auto isInLimit = [fields](const Limit& limit)
    {
        gint value = 1;
        gst_structure_get_int(fields, limit.field, &value);
        return 1 <= value && value <= limit.max;
    };
    return pixelWidth > 0 && frames >= 0 &&
           std::all_of(std::begin(Limits), std::end(Limits), isInLimit);
}

/// @return whether speakers have positions that GStreamer takes without a warning
bool hasValidPositions(const GstStructure* fields)
{
    gint channels = 0;
    guint64 mask = 0;
    gst_structure_get_int(fields, "channels", &channels);
    if (gst_structure_get(fields, "channel-mask", GST_TYPE_BITMASK, &mask, nullptr) == FALSE)
        return channels <= 2;
    if (mask == 0)
        return true;
    GstAudioChannelPosition positions[64];
    return channels == std::popcount(mask) &&
           gst_audio_channel_positions_from_mask(channels, mask, positions) != FALSE &&
           gst_audio_check_valid_channel_positions(positions, channels, FALSE) != FALSE;
}

/// @return whether GStreamer takes the views of a picture without a warning
bool hasValidViews(const GstStructure* fields)
{
    const gchar* const mode = gst_structure_get_string(fields, "multiview-mode");
    GEnumClass* const modes = G_ENUM_CLASS(g_type_class_ref(GST_TYPE_VIDEO_MULTIVIEW_MODE));
    const GEnumValue* const known =
        mode != nullptr ? g_enum_get_value_by_nick(modes, mode) : nullptr;
    const bool isValid =
        mode == nullptr || (known != nullptr && known->value != GST_VIDEO_MULTIVIEW_MODE_NONE);
    g_type_class_unref(modes);
    return isValid;
}

bool hasSameSize(const GstVideoMeta& meta, const GstVideoInfo& info)
{
    return meta.format == GST_VIDEO_INFO_FORMAT(&info) &&
           meta.width == static_cast<guint>(GST_VIDEO_INFO_WIDTH(&info)) &&
           meta.height == static_cast<guint>(GST_VIDEO_INFO_HEIGHT(&info));
}

bool hasDefaultPlanes(const GstVideoMeta& meta, const GstVideoInfo& info)
{
    return meta.n_planes == GST_VIDEO_INFO_N_PLANES(&info) &&
           std::equal(meta.offset, meta.offset + meta.n_planes, info.offset) &&
           std::equal(meta.stride, meta.stride + meta.n_planes, info.stride);
}

} // unnamed namespace

std::optional<MediaFormat> MediaFormat::parse(std::string_view text)
{
    MediaFormat format;
    format.m_caps = parseCaps(text);
    if (!format.m_caps)
        return std::nullopt;
    format.m_text = text;
    const GstStructure* const fields = gst_caps_get_structure(format.getCaps(), 0);
    const bool isVideo = gst_structure_has_name(fields, "video/x-raw") != FALSE;
    const bool isAudio = gst_structure_has_name(fields, "audio/x-raw") != FALSE;
    if ((isVideo || isAudio) && !isInLimits(fields))
        return std::nullopt;
    if (isVideo &&
        (!hasValidViews(fields) ||
         gst_video_info_from_caps(&format.m_video.emplace(), format.getCaps()) == FALSE ||
         GST_VIDEO_INFO_SIZE(&*format.m_video) == 0))
        return std::nullopt;
    if (isAudio &&
        (!hasValidPositions(fields) ||
         gst_audio_info_from_caps(&format.m_audio.emplace(), format.getCaps()) == FALSE ||
         GST_AUDIO_INFO_BPF(&*format.m_audio) == 0))
        return std::nullopt;
    return format;
}

std::string_view MediaFormat::getType() const
{
    return gst_structure_get_name(gst_caps_get_structure(getCaps(), 0));
}

BufferListPtr MediaFormat::makeHeaders() const
{
    const GstStructure* const fields = gst_caps_get_structure(getCaps(), 0);
    const GValue* const headers = gst_structure_get_value(fields, "streamheader");
    const guint num = headers != nullptr && GST_VALUE_HOLDS_ARRAY(headers)
                          ? gst_value_array_get_size(headers)
                          : 0;
    if (num == 0 || !GST_VALUE_HOLDS_BUFFER(gst_value_array_get_value(headers, 0)))
        return nullptr;
    BufferListPtr list(gst_buffer_list_new());
    for (guint i = 0; i < num; ++i) // all of one type
    {
        GstBuffer* const copy =
            gst_buffer_copy(gst_value_get_buffer(gst_value_array_get_value(headers, i)));
        GST_BUFFER_FLAG_SET(copy, GST_BUFFER_FLAG_HEADER);
        gst_buffer_list_add(list.get(), copy);
    }
    return list;
}

bool MediaFormat::hasKeyFrames() const
{
    return !getType().starts_with("image/");
}

// For encoded pictures, this assumes good compression.
std::size_t MediaFormat::estimateSize() const
{
    if (m_video)
        return GST_VIDEO_INFO_SIZE(&*m_video);
    const GstStructure* const fields = gst_caps_get_structure(getCaps(), 0);
    gint width = 0;
    gint height = 0;
    gst_structure_get(fields, "width", G_TYPE_INT, &width, "height", G_TYPE_INT, &height, nullptr);
    constexpr gint MaxLength = 16'384;
    width = std::clamp(width, 0, MaxLength);
    height = std::clamp(height, 0, MaxLength);
    const bool isPicture = getType().starts_with("video/") || !hasKeyFrames();
    const std::size_t area = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    return std::max(area / 4, isPicture ? MinPictureBytes : 0);
}

std::uint64_t MediaFormat::getDuration(std::size_t size) const
{
    if (m_audio)
        return scaleSeconds(
            size / static_cast<std::size_t>(GST_AUDIO_INFO_BPF(&*m_audio)),
            static_cast<std::uint64_t>(GST_AUDIO_INFO_RATE(&*m_audio)));
    gint frames = 0;
    gint seconds = 0;
    const GstStructure* const fields = gst_caps_get_structure(getCaps(), 0);
    if (gst_structure_get_fraction(fields, "framerate", &frames, &seconds) == FALSE || frames <= 0)
        return 0;
    return std::min(
        scaleSeconds(static_cast<std::uint64_t>(seconds), static_cast<std::uint64_t>(frames)),
        MaxFrameNs);
}

bool MediaFormat::isWhole(std::size_t size) const
{
    if (m_audio)
        return size > 0 && size % static_cast<std::size_t>(GST_AUDIO_INFO_BPF(&*m_audio)) == 0;
    return size > 0 && (!m_video || size >= GST_VIDEO_INFO_SIZE(&*m_video));
}

bool MediaFormat::isPacked(GstBuffer* buffer) const
{
    if (m_audio)
        return findPlanes(buffer) == nullptr;
    const GstVideoMeta* const meta = m_video ? gst_buffer_get_video_meta(buffer) : nullptr;
    return meta == nullptr || hasDefaultPlanes(*meta, *m_video);
}

std::size_t MediaFormat::getPackedSize(GstBuffer* buffer) const
{
    if (isPacked(buffer))
        return gst_buffer_get_size(buffer);
    if (m_video)
        return GST_VIDEO_INFO_SIZE(&*m_video);
    return findPlanes(buffer)->samples * static_cast<std::size_t>(GST_AUDIO_INFO_BPF(&*m_audio));
}

bool MediaFormat::pack(GstBuffer* buffer, std::uint8_t* destination) const
{
    const std::size_t size = getPackedSize(buffer);
    if (isPacked(buffer))
        return gst_buffer_extract(buffer, 0, destination, size) == size;
    if (m_audio)
    {
        if (GST_AUDIO_INFO_CHANNELS(&findPlanes(buffer)->info) !=
            GST_AUDIO_INFO_CHANNELS(&*m_audio))
            return false;
        const auto numPlanes = static_cast<std::size_t>(GST_AUDIO_INFO_CHANNELS(&*m_audio));
        const std::size_t plane = size / numPlanes;
        std::size_t copied = 0;
        for (std::size_t i = 0; i < numPlanes; ++i)
            copied += gst_buffer_extract(
                buffer, findPlanes(buffer)->offsets[i], destination + i * plane, plane);
        return copied == size;
    }
    if (!hasSameSize(*gst_buffer_get_video_meta(buffer), *m_video))
        return false;
    GstVideoFrame from;
    if (gst_video_frame_map(&from, &*m_video, buffer, GST_MAP_READ) == FALSE)
        return false;
    GstVideoFrame to{};
    to.info = *m_video;
    for (guint i = 0; i < GST_VIDEO_INFO_N_PLANES(&*m_video); ++i)
        to.data[i] = destination + m_video->offset[i];
    std::fill_n(destination, size, std::uint8_t{0}); // the ends of lines are not copied
    const bool isCopied = gst_video_frame_copy(&to, &from) != FALSE;
    gst_video_frame_unmap(&from);
    return isCopied;
}

void MediaFormat::describe(GstBuffer* buffer) const
{
    if (m_audio && GST_AUDIO_INFO_LAYOUT(&*m_audio) == GST_AUDIO_LAYOUT_NON_INTERLEAVED)
        gst_buffer_add_audio_meta(
            buffer, &*m_audio,
            gst_buffer_get_size(buffer) / static_cast<std::size_t>(GST_AUDIO_INFO_BPF(&*m_audio)),
            nullptr);
}

} // namespace vlx::gst
