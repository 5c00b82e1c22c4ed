#pragma once

/// The InitialInfo packet, which is the first message on a sidechannel connection, and the names of
/// the two protocols that it announces. All functions here are pure: call them from any thread;
/// they log nothing.

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

/// First message of a sender to each new receiver. The strings must not contain a 0 byte.
struct InitialInfo
{
    std::uint16_t version;             ///< protocol version; senders write 1
    std::string timeSyncIPAddress;     ///< address of the network clock; may be empty
    std::uint16_t timeSyncPort;        ///< port of the network clock; 0: no synchronisation
    TimeSyncProtocol timeSyncProtocol; ///< how receivers obtain the stream's clock
    NanomsgProtocol nanomsgProtocol;   ///< scalability protocol of the main channel
    std::string nanomsgURI;            ///< "ipc://" and the path of the main channel's socket file
};

/// Converts a clock's protocol name; case-sensitive.
///
/// @param text  "sysclock" or "gstnetclock"
/// @return the protocol; TimeSyncProtocol::Unknown for any other text, without an error
VLX_API TimeSyncProtocol toTimeSyncProtocol(const std::string& text);

/// Converts a main channel's protocol name; case-sensitive.
///
/// @param text  "pipeline" or "pubsub"
/// @return the protocol; NanomsgProtocol::Unknown for any other text, without an error
VLX_API NanomsgProtocol toNanomsgProtocol(const std::string& text);

/// @return "gstnetclock", "sysclock", or "unknown" for every other value; a static string
VLX_API const char* toString(TimeSyncProtocol protocol);

/// @return "pipeline", "pubsub", or "unknown" for every other value; a static string
VLX_API const char* toString(NanomsgProtocol protocol);

/// Serialises an InitialInfo record.
///
/// @param info  the record; only the low byte of each protocol value is written, unchecked
/// @return a new buffer of 8 bytes plus the lengths of the two strings
VLX_API Buffer produceInitialInfoPacket(const InitialInfo& info);

/// Parses an InitialInfo packet. Protocol bytes are not range-checked; bytes after the last field
/// are ignored.
///
/// @param packetData  one complete packet
/// @return the record
/// @pre the packet is complete and both strings are terminated; otherwise the assertion "ok" stops
///      the process
VLX_API InitialInfo parseInitialInfoPacket(const ByteView& packetData);

} // namespace vlx
