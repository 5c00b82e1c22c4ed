#pragma once

/// What a benchmark needs of a transport: an end that sends frames, and one that hands them over.
///
/// Each program vlx_bench_end_<name> is the endpoint's main program linked with one adapter, which
/// defines openStream() and startReceiving(); so no process carries another peer's libraries.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <span>
#include <string>

namespace vlx::bench
{

using Bytes = std::span<const std::uint8_t>;

/// Where both ends meet, and how the adapter is to be set up.
struct Link
{
    std::string name;       ///< unique per session; part of socket names and file names
    std::string directory;  ///< private to the run; short, without a slash at the end
    std::string variant;    ///< adapter's own: which set of options; empty for defaults
    std::size_t mediaBytes; ///< size of each frame's media data
};

/// In front of the media data in a packet. As long as the header of our Frame packet, so that every
/// transport moves the same number of bytes.
struct PacketHeader
{
    std::uint32_t timestampNs[2];
    std::uint32_t unused[2];
    std::uint32_t packetBytes;
};
static_assert(sizeof(PacketHeader) == 20);

/// Sends a frame: time stamp and the packet, whose end is the media data. Dropping it is the
/// transport's right. Called on one thread at a time.
using SendFrame = std::function<void(std::uint64_t, Bytes)>;

/// Gets each frame that arrives: time stamp, and the media data, valid only during the call.
using FrameHandler = std::function<void(std::uint64_t, Bytes)>;

/// Makes the stream reachable; returns without waiting for receivers.
/// @return its destruction closes the stream; empty after a message on standard error
SendFrame openStream(const Link& link);

/// Starts to receive on one thread until the process ends, and returns.
/// @return false after a message on standard error
bool startReceiving(const Link& link, FrameHandler handler);

/// Hands over a packet that has arrived whole.
inline void deliverPacket(const FrameHandler& handler, const void* data, std::size_t size)
{
    std::uint64_t timestampNs = 0;
    if (size < sizeof(PacketHeader))
        return;
    std::memcpy(&timestampNs, data, sizeof timestampNs);
    handler(
        timestampNs,
        Bytes(static_cast<const std::uint8_t*>(data), size).subspan(sizeof(PacketHeader)));
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
