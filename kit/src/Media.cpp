#include <algorithm>
#include <limits>
#include <string>

#include <vlxkit/Media.hpp>
#include <vlxkit/Text.hpp>

#include "base/LittleEndian.hpp"

namespace vlx::kit
{

namespace
{

constexpr std::uint32_t KnownFlags = MediaHead::DeltaUnit | MediaHead::Header | MediaHead::Marker |
                                     MediaHead::Discont | MediaHead::Corrupted |
                                     MediaHead::Droppable | MediaHead::Decoding;

constexpr std::size_t FlagsOffset = 0;
constexpr std::size_t PtsOffset = 8;
constexpr std::size_t PositionOffset = 16;
constexpr std::size_t NumberOffset = 24;

constexpr std::size_t MaxShortCapsBytes = 60;

// Stored for values that are not set.
constexpr auto NoPts = std::numeric_limits<std::int64_t>::min();
constexpr auto NoPosition = std::numeric_limits<std::uint64_t>::max();

/// Removes fields such as codec_data, which hide what matters.
std::string dropBuffers(std::string_view caps)
{
    constexpr std::string_view Type = "=(buffer)";
    std::string text;
    for (;;)
    {
        const std::size_t type = caps.find(Type);
        const std::size_t begin = type == caps.npos ? type : caps.rfind(", ", type);
        text += caps.substr(0, begin);
        if (begin == caps.npos)
            return text;
        caps.remove_prefix(type + Type.size());
        const bool isArray = caps.starts_with('<');
        const std::size_t end = std::min(caps.find(isArray ? '>' : ','), caps.size());
        caps.remove_prefix(std::min(end + (isArray ? 1 : 0), caps.size()));
    }
}

} // unnamed namespace

void writeMediaHead(const MediaHead& head, std::uint8_t* destination)
{
    std::fill_n(destination, MediaHeadBytes, std::uint8_t{0});
    storeLittleEndian(destination + FlagsOffset, head.flags);
    storeLittleEndian(
        destination + PtsOffset, static_cast<std::uint64_t>(head.ptsOffsetNs.value_or(NoPts)));
    storeLittleEndian(destination + PositionOffset, head.offset.value_or(NoPosition));
    storeLittleEndian(destination + NumberOffset, head.number);
}

std::optional<MediaFrame> parseMediaFrame(const ByteView& bytes)
{
    if (bytes.size() < MediaHeadBytes)
        return std::nullopt;
    MediaFrame frame{{}, bytes.subspan(MediaHeadBytes)};
    frame.head.flags = *ByteCursor(bytes, FlagsOffset).read<std::uint32_t>() & KnownFlags;
    const auto pts = static_cast<std::int64_t>(*ByteCursor(bytes, PtsOffset).read<std::uint64_t>());
    if (pts != NoPts)
        frame.head.ptsOffsetNs = pts;
    const std::uint64_t position = *ByteCursor(bytes, PositionOffset).read<std::uint64_t>();
    if (position != NoPosition)
        frame.head.offset = position;
    frame.head.number = *ByteCursor(bytes, NumberOffset).read<std::uint64_t>();
    return frame;
}

bool isMediaCaps(std::string_view text)
{
    return !text.empty() && text.size() <= MaxMediaCapsBytes &&
           toPrintable(text, MaxMediaCapsBytes) == text;
}

std::optional<std::string> getMediaCaps(const CodecFormat& codec)
{
    std::string text(codec.header.begin(), codec.header.end());
    if (codec.fourcc != MediaFourcc || !isMediaCaps(text))
        return std::nullopt;
    return text;
}

std::string shortenMediaCaps(std::string_view caps)
{
    std::string text;
    bool isType = false;
    for (const char c : dropBuffers(caps))
    {
        const bool wasType = isType;
        isType = wasType ? c != ')' : c == '(' && text.ends_with('=');
        if (!wasType && !isType)
            text += c;
    }
    return toPrintable(text, MaxShortCapsBytes);
}

} // namespace vlx::kit
