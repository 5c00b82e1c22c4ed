#pragma once

/// The codec of every media type but PCM: frames with their caps, as the GStreamer elements send
/// them.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/Consumer.hpp>

namespace vlx::kit
{

/// FourCC of streams that carry any media, "VLXM". The codec header is the caps as text. Each frame
/// is a MediaHead followed by the media data. To send such a stream, use a PlainPayloader with this
/// code and the text; to receive it, set ConsumerOptions::anyCodec.
inline constexpr std::uint32_t MediaFourcc = 0x4D584C56;

/// Longest caps, bytes of text.
inline constexpr std::size_t MaxMediaCapsBytes = 65'536;

/// Size of a MediaHead in a frame, bytes.
inline constexpr std::size_t MediaHeadBytes = 32;

/// What precedes the media data of a frame.
struct MediaHead
{
    static constexpr std::uint32_t DeltaUnit = 1;  ///< needs earlier frames to be decoded
    static constexpr std::uint32_t Header = 2;     ///< data that a decoder needs first
    static constexpr std::uint32_t Marker = 4;     ///< the end of a picture, for instance
    static constexpr std::uint32_t Discont = 8;    ///< something is missing before this frame
    static constexpr std::uint32_t Corrupted = 16; ///< the data is damaged
    static constexpr std::uint32_t Droppable = 32; ///< no other frame needs this one
    static constexpr std::uint32_t Decoding = 64;  ///< the timestamp is the time of decoding

    std::uint32_t flags = 0; ///< sum of the above
    /// Time of presentation minus the frame's timestamp, nanoseconds; not set: unknown. The
    /// frame's timestamp is the time of decoding if there is one, so that timestamps rise.
    std::optional<std::int64_t> ptsOffsetNs = {};
    /// Position in the stream, in the media's unit (frames or bytes, for instance); not set:
    /// unknown.
    std::optional<std::uint64_t> offset = {};
    /// Number of the frame, one more than that of the frame sent before: a receiver that sees any
    /// other number has lost frames. 0: not counted.
    std::uint64_t number = 0;

    /// Memberwise comparison.
    bool operator==(const MediaHead&) const = default;
};

/// A frame of any media.
struct MediaFrame
{
    MediaHead head;
    ByteView data; ///< part of the bytes that were parsed
};

/// Writes a head. A time or position that equals the mark of a value that is not set (the least
/// signed number, the largest unsigned one) is read as not set.
///
/// @param destination  receives MediaHeadBytes bytes
/// @thread any
VLX_API void writeMediaHead(const MediaHead& head, std::uint8_t* destination);

/// Splits a frame into its head and its data. Unknown flags are left out.
///
/// @param bytes  a frame of a stream with MediaFourcc; must outlive the result
/// @return not set if the bytes are shorter than a head
/// @thread any
VLX_API std::optional<MediaFrame> parseMediaFrame(const ByteView& bytes);

/// Checks a text that is to be announced as caps. What the text means is not checked.
///
/// @return whether the text has 1 to MaxMediaCapsBytes bytes, all of visible UTF-8 characters and
///         spaces, as toPrintable() returns them
/// @thread any
VLX_API bool isMediaCaps(std::string_view text);

/// @return the caps of a codec; not set if the codec is another one, or its header is not valid
///         according to isMediaCaps()
/// @thread any
VLX_API std::optional<std::string> getMediaCaps(const CodecFormat& codec);

/// Shortens caps for one line of text.
///
/// @param caps  according to isMediaCaps()
/// @return such as "video/x-raw, format=I420, width=1920, height=1080, frame...": without types
///         such as "(int)", and at most 60 bytes
/// @thread any
VLX_API std::string shortenMediaCaps(std::string_view caps);

} // namespace vlx::kit
