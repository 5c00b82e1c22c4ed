#pragma once

/// The InitialInfo packet, the first message on a sidechannel connection, and the names of the two
/// protocols that it announces. All functions here are pure: any thread, nothing logged.

#include <cstdint>
#include <string>

#include <vlx/VlxTypes.hpp>

namespace vlx
{

/// How receivers obtain the clock that the stream's timestamps stand on. One byte on the wire.
enum class TimeSyncProtocol : std::int32_t
{
    Unknown = 0,
    /// Receivers synchronise to a network clock at the announced address and port.
    GstNetClock = 1,
    /// Sender and receivers share the host's monotonic system clock; nothing to synchronise.
    MonotonicSystemClock = 2,
};

/// Scalability protocol of the main channel. One byte on the wire.
enum class NanomsgProtocol : std::int32_t
{
    Unknown = 0,
    /// One pulling receiver. The receiver binds, the sender connects; sends wait for the receiver.
    Pipeline = 1,
    /// Any number of receivers. The sender binds; what a receiver cannot take at once is dropped.
    PubSub = 2,
};

/// What a sender tells a new receiver before anything else. The strings must not hold a 0 byte.
struct InitialInfo
{
    std::uint16_t version;             ///< protocol version; senders write 1
    std::string timeSyncIPAddress;     ///< address of the network clock; may be empty
    std::uint16_t timeSyncPort;        ///< port of the network clock; 0: nothing to synchronise to
    TimeSyncProtocol timeSyncProtocol; ///< how receivers obtain the stream's clock
    NanomsgProtocol nanomsgProtocol;   ///< scalability protocol of the main channel
    std::string nanomsgURI;            ///< main channel: "ipc://" and the path of its socket file
};

/// Reads a protocol name; exact and case-sensitive.
///
/// @param text  "sysclock" or "gstnetclock"
/// @return the protocol; TimeSyncProtocol::Unknown for any other text, which is not reported
VLX_API TimeSyncProtocol toTimeSyncProtocol(const std::string& text);

/// Reads a protocol name; exact and case-sensitive.
///
/// @param text  "pipeline" or "pubsub"
/// @return the protocol; NanomsgProtocol::Unknown for any other text, which is not reported
VLX_API NanomsgProtocol toNanomsgProtocol(const std::string& text);

/// @return "gstnetclock", "sysclock", or "unknown" for every other value; a static string
VLX_API const char* toString(TimeSyncProtocol protocol);

/// @return "pipeline", "pubsub", or "unknown" for every other value; a static string
VLX_API const char* toString(NanomsgProtocol protocol);

/// Serialises an InitialInfo record.
///
/// @param info  the record; the protocol values are cut to their low byte, unchecked
/// @return a new buffer of 8 bytes plus the lengths of the two strings
VLX_API Buffer produceInitialInfoPacket(const InitialInfo& info);

/// Reads an InitialInfo packet. Protocol bytes are taken without range check; bytes behind the last
/// field are ignored.
///
/// @param packetData  one complete packet
/// @return the record
/// @pre the packet is complete and both strings are terminated; otherwise the assertion "ok" stops
///      the process
VLX_API InitialInfo parseInitialInfoPacket(const ByteView& packetData);

} // namespace vlx
