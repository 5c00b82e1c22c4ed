#pragma once

/// The codec of all media except PCM, as the GStreamer elements send it: frames with caps.

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

/// Maximum length of caps as text, bytes.
inline constexpr std::size_t MaxMediaCapsBytes = 65'536;

/// Size of a MediaHead in a frame, bytes.
inline constexpr std::size_t MediaHeadBytes = 32;

/// Metadata in front of the media data of a frame.
struct MediaHead
{
    static constexpr std::uint32_t DeltaUnit = 1;  ///< needs earlier frames to be decoded
    static constexpr std::uint32_t Header = 2;     ///< data that a decoder needs first
    static constexpr std::uint32_t Marker = 4;     ///< for example the end of a picture
    static constexpr std::uint32_t Discont = 8;    ///< data is missing before this frame
    static constexpr std::uint32_t Corrupted = 16; ///< the data is damaged
    static constexpr std::uint32_t Droppable = 32; ///< no other frame needs this one
    static constexpr std::uint32_t Decoding = 64;  ///< the timestamp is the decoding time

    std::uint32_t flags = 0; ///< sum of the above
    /// Presentation time minus the frame's timestamp, nanoseconds; not set: unknown. The timestamp
    /// is the decoding time if there is one, so that timestamps increase.
    std::optional<std::int64_t> ptsOffsetNs = {};
    /// Position in the stream, in the media's unit (frames or bytes, for instance); not set:
    /// unknown.
    std::optional<std::uint64_t> offset = {};
    /// Number of the frame, one more than the number of the previous frame. A receiver that finds
    /// any other number has lost frames. 0: frames are not counted.
    std::uint64_t number = 0;

    /// Memberwise comparison.
    bool operator==(const MediaHead&) const = default;
};

/// A frame of any media.
struct MediaFrame
{
    MediaHead head; ///< what precedes the media data
    ByteView data;  ///< part of the bytes that were parsed
};

/// Writes a head. The smallest signed time and the largest unsigned position are reserved: they are
/// parsed as not set.
///
/// @param head         to write
/// @param destination  receives MediaHeadBytes bytes
/// @thread any
VLX_API void writeMediaHead(const MediaHead& head, std::uint8_t* destination);

/// Splits a frame into its head and its data. Unknown flags are ignored.
///
/// @param bytes  a frame of a stream with MediaFourcc; must outlive the result
/// @return not set if the bytes are shorter than a head
/// @thread any
VLX_API std::optional<MediaFrame> parseMediaFrame(const ByteView& bytes);

/// Checks whether a text can be announced as caps: its length and characters, not its meaning.
///
/// @return true if the text has 1 to MaxMediaCapsBytes bytes, and contains only visible UTF-8
///         characters and spaces, as toPrintable() returns them
/// @thread any
VLX_API bool isMediaCaps(std::string_view text);

/// Returns the caps of a codec.
///
/// @return not set if the codec is not VLXM, or isMediaCaps() refuses its header
/// @thread any
VLX_API std::optional<std::string> getMediaCaps(const CodecFormat& codec);

/// Shortens caps for one line of text.
///
/// @param caps  caps that isMediaCaps() accepts
/// @return at most 60 bytes without buffers and types such as "(int)", for example "video/x-raw,
///         format=I420, width=1920, height=1080, framer..."
/// @thread any
VLX_API std::string shortenMediaCaps(std::string_view caps);

} // namespace vlx::kit
