#pragma once

/// Media types of streams other than PCM.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <gst/audio/audio.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include "CapsText.hpp"

namespace vlx::gst
{

struct BufferListDeleter
{
    void operator()(GstBufferList* list) const
    {
        gst_buffer_list_unref(list);
    }
};

/// Owns one reference.
using BufferListPtr = std::unique_ptr<GstBufferList, BufferListDeleter>;

/// Caps of a stream, and the layout of its buffers.
///
/// Packed bytes have the default layout of the caps: raw video with the default strides and
/// offsets, planar audio with each plane directly after the previous one.
class MediaFormat
{
public:
    /// Parses caps from another process.
    ///
    /// @param text  any bytes
    /// @return not set for caps that are not supported, see parseCaps()
    static std::optional<MediaFormat> parse(std::string_view text);

    /// @return the parsed text
    const std::string& getText() const
    {
        return m_text;
    }

    /// @return owned by the format
    GstCaps* getCaps() const
    {
        return m_caps.get();
    }

    /// Returns the headers in the caps, which a receiver needs if it joins late.
    ///
    /// @return null: the caps have no "streamheader"
    BufferListPtr makeHeaders() const;

    /// @return false for media whose buffers are pictures of their own: the encoders of some, such
    ///         as pngenc, mark them as delta units
    bool hasKeyFrames() const;

    /// @return whether the media is raw video or audio
    bool isRaw() const
    {
        return m_video || m_audio;
    }

    /// @return size that most buffers do not exceed, bytes; 0: unknown
    std::size_t estimateSize() const;

    /// Returns the duration of a buffer according to the caps.
    ///
    /// @param size  number of packed bytes
    /// @return nanoseconds; 0: unknown
    std::uint64_t getDuration(std::size_t size) const;

    /// @return whether packed bytes of this size are whole samples or pictures
    bool isWhole(std::size_t size) const;

    /// @return whether a buffer's bytes are packed already
    bool isPacked(GstBuffer* buffer) const;

    /// @return number of bytes that pack() writes
    std::size_t getPackedSize(GstBuffer* buffer) const;

    /// Packs a buffer.
    ///
    /// @return false if the buffer cannot be read
    bool pack(GstBuffer* buffer, std::uint8_t* destination) const;

    /// Adds metadata with the layout of packed bytes, if elements need it.
    ///
    /// @param buffer  writable, with packed bytes for which isWhole() returns true
    void describe(GstBuffer* buffer) const;

    /// Compares the texts.
    bool operator==(const MediaFormat& other) const
    {
        return m_text == other.m_text;
    }

private:
    /// @return such as "video/x-h264"
    std::string_view getType() const;

    std::string m_text;
    std::shared_ptr<GstCaps> m_caps;
    std::optional<GstVideoInfo> m_video; // raw
    std::optional<GstAudioInfo> m_audio; // raw
};

} // namespace vlx::gst
