#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>
#include <vector>

#include "Transport.hpp"

namespace vlx::bench
{

/// Header that the peers carry in front of the media data: time stamp, duration, four bytes of
/// format. As long as the header of a Frame packet, so that every transport moves the same number
/// of bytes.
constexpr std::size_t PeerHeaderBytes = 20;

/// A peer's packet, with the media data written in place.
class PeerPacket
{
public:
    explicit PeerPacket(std::size_t mediaBytes) : m_bytes(PeerHeaderBytes + mediaBytes) {}

    std::span<std::uint8_t> media()
    {
        return std::span(m_bytes).subspan(PeerHeaderBytes);
    }

    std::span<const std::uint8_t> stamp(std::uint64_t timestampNs)
    {
        std::memcpy(m_bytes.data(), &timestampNs, sizeof timestampNs);
        return m_bytes;
    }

private:
    std::vector<std::uint8_t> m_bytes;
};

/// Hands over a packet that has arrived whole.
inline void deliverPeerPacket(const FrameHandler& handler, const void* data, std::size_t size)
{
    if (size < PeerHeaderBytes)
        return;
    std::uint64_t timestampNs = 0;
    std::memcpy(&timestampNs, data, sizeof timestampNs);
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    handler(timestampNs, {bytes + PeerHeaderBytes, size - PeerHeaderBytes});
}

/// Reports a failed call of an adapter.
/// @return ok
inline bool check(bool ok, const char* call, const char* reason)
{
    if (!ok)
        std::fprintf(stderr, "%s: %s\n", call, reason);
    return ok;
}

} // namespace vlx::bench
