#pragma once

#include <cstdint>
#include <cstring>
#include <span>

namespace vlx::bench
{

/// What part of a session a frame belongs to.
enum class Phase : std::uint8_t
{
    Probe = 1,   ///< until every receiver is known to receive
    WarmUp = 2,  ///< not recorded
    Measure = 3, ///< recorded
    End = 4,     ///< tells receivers that nothing more is coming
};

/// Identifies a frame; the first bytes of its media data.
struct FrameTag
{
    std::uint16_t epoch; ///< which of several senders in a row
    Phase phase;
    std::uint32_t index; ///< within the phase, from 0
};

constexpr std::size_t TagBytes = 8;

/// Writes the tag to the front of the media data, and a byte of it to the very end, so that a frame
/// that was cut short shows.
inline void writeTag(std::span<std::uint8_t> media, const FrameTag& tag)
{
    const auto phase = static_cast<std::uint8_t>(tag.phase);
    std::memcpy(media.data(), &tag.epoch, sizeof tag.epoch);
    std::memcpy(media.data() + 2, &phase, sizeof phase);
    std::memcpy(media.data() + 4, &tag.index, sizeof tag.index);
    media.back() = static_cast<std::uint8_t>(tag.index);
}

/// @return false if the media data does not have the expected length, or its end does not fit
inline bool readTag(std::span<const std::uint8_t> media, std::size_t expectedBytes, FrameTag& tag)
{
    if (media.size() != expectedBytes)
        return false;
    std::uint8_t phase = 0;
    std::memcpy(&tag.epoch, media.data(), sizeof tag.epoch);
    std::memcpy(&phase, media.data() + 2, sizeof phase);
    std::memcpy(&tag.index, media.data() + 4, sizeof tag.index);
    tag.phase = static_cast<Phase>(phase);
    return media.back() == static_cast<std::uint8_t>(tag.index);
}

} // namespace vlx::bench
