#pragma once

/// Interface of a transport in the benchmarks: one end sends frames, the other delivers them.
///
/// Each program vlx_bench_end_<name> is the endpoint's main program linked with one adapter, which
/// defines openStream() and startReceiving(); so no process carries another peer's libraries.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <span>
#include <string>

namespace vlx::bench
{

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint64_t NsPerSecond = 1'000'000'000;

/// Number of first bytes of the media data that, with the last byte, identify a frame.
constexpr std::size_t TagBytes = 8;

/// Task of one end.
struct Plan
{
    std::string name;        ///< unique per session; part of socket names and file names
    std::string directory;   ///< private to the run; short, without a slash at the end
    std::string variant;     ///< adapter's own: which set of options; empty for defaults
    std::size_t bytes = 0;   ///< of media data in each frame
    std::string role;        ///< "send" or "receive"
    std::uint16_t epoch = 1; ///< which of several senders in a row
    std::uint64_t rate = 0;  ///< frames a second
    std::uint32_t warmup = 0;
    std::uint32_t frames = 0; ///< 0: flood
    std::uint64_t flood = 0;  ///< length of the flood, milliseconds
    std::size_t objects = 1;  ///< receivers in this process
    bool dry = false;         ///< sender: pace and stamp, but send nothing

    /// @return path of the rendezvous file, for transports that use the file system
    std::string getPath(const std::string& suffix) const
    {
        return directory + "/" + name + suffix;
    }

    /// @return the same path as an address for several libraries
    std::string getURL() const
    {
        return "ipc://" + getPath(".ipc");
    }
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

/// Receives each frame: time stamp and media data, which is valid only during the call.
using FrameHandler = std::function<void(std::uint64_t, Bytes)>;

/// Makes the stream reachable; returns without waiting for receivers.
/// @return its destruction closes the stream
SendFrame openStream(const Plan& plan);

/// Starts to receive on one thread until the process ends, and returns.
void startReceiving(const Plan& plan, FrameHandler handler);

/// Delivers a complete packet.
///
/// @param size  bytes; what follows the packet is ignored
inline void deliverPacket(const FrameHandler& handler, const void* data, std::size_t size)
{
    PacketHeader header{};
    std::uint64_t timestampNs = 0;
    if (size < sizeof header)
        return;
    std::memcpy(&header, data, sizeof header);
    std::memcpy(&timestampNs, header.timestampNs, sizeof timestampNs);
    const Bytes packet(
        static_cast<const std::uint8_t*>(data), std::min<std::size_t>(size, header.packetBytes));
    handler(timestampNs, packet.subspan(sizeof header));
}

/// Ends the process with a message if a call of an adapter has failed.
inline void require(bool ok, const char* call, const char* reason)
{
    if (ok)
        return;
    std::fprintf(stderr, "%s: %s\n", call, reason);
    std::_Exit(EXIT_FAILURE);
}

} // namespace vlx::bench
