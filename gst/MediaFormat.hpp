#pragma once

/// Media types of streams that are not PCM.

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

/// Caps of a stream, and how they arrange the bytes of a buffer.
///
/// Packed bytes are in the caps' own arrangement: raw video with the default strides and offsets,
/// planar audio with one plane directly behind the other.
class MediaFormat
{
public:
    /// @param text  any bytes
    /// @return not set for caps that no stream may have, see parseCaps()
    static std::optional<MediaFormat> parse(std::string_view text);

    /// @return the text that the caps were read from
    const std::string& getText() const
    {
        return m_text;
    }

    /// @return owned by the format
    GstCaps* getCaps() const
    {
        return m_caps.get();
    }

    /// @return a size that most buffers do not exceed, in bytes; 0: unknown
    std::size_t estimateSize() const;

    /// @param size  of packed bytes
    /// @return the duration that follows from the caps, nanoseconds; 0: unknown
    std::uint64_t getDuration(std::size_t size) const;

    /// @return whether elements can rely on packed bytes of this size
    bool isWhole(std::size_t size) const;

    /// @return whether a buffer's bytes are packed already
    bool isPacked(GstBuffer* buffer) const;

    /// @return number of bytes that pack() writes
    std::size_t getPackedSize(GstBuffer* buffer) const;

    /// Packs a buffer.
    ///
    /// @return false if the buffer cannot be read
    bool pack(GstBuffer* buffer, std::uint8_t* destination) const;

    /// Describes the arrangement of packed bytes in a buffer where elements expect that.
    ///
    /// @param buffer  writable, of whole bytes
    void describe(GstBuffer* buffer) const;

    /// Compares the texts.
    bool operator==(const MediaFormat& other) const
    {
        return m_text == other.m_text;
    }

private:
    std::string m_text;
    std::shared_ptr<GstCaps> m_caps;
    std::optional<GstVideoInfo> m_video; // raw
    std::optional<GstAudioInfo> m_audio; // raw
};

} // namespace vlx::gst
