#include <vlx/SideChannel.hpp>

#include "base/Assertions.hpp"
#include "base/LittleEndian.hpp"

namespace vlx
{

namespace
{

void appendTerminatedString(Buffer& packet, const std::string& text)
{
    packet.insert(packet.end(), text.begin(), text.end());
    packet.push_back(0);
}

} // namespace

TimeSyncProtocol toTimeSyncProtocol(const std::string& text)
{
    if (text == toString(TimeSyncProtocol::MonotonicSystemClock))
        return TimeSyncProtocol::MonotonicSystemClock;
    if (text == toString(TimeSyncProtocol::GstNetClock))
        return TimeSyncProtocol::GstNetClock;
    return TimeSyncProtocol::Unknown;
}

NanomsgProtocol toNanomsgProtocol(const std::string& text)
{
    if (text == toString(NanomsgProtocol::Pipeline))
        return NanomsgProtocol::Pipeline;
    if (text == toString(NanomsgProtocol::PubSub))
        return NanomsgProtocol::PubSub;
    return NanomsgProtocol::Unknown;
}

const char* toString(TimeSyncProtocol protocol)
{
    switch (protocol)
    {
    case TimeSyncProtocol::GstNetClock:
        return "gstnetclock";
    case TimeSyncProtocol::MonotonicSystemClock:
        return "sysclock";
    case TimeSyncProtocol::Unknown:
        break;
    }
    return "unknown";
}

const char* toString(NanomsgProtocol protocol)
{
    switch (protocol)
    {
    case NanomsgProtocol::Pipeline:
        return "pipeline";
    case NanomsgProtocol::PubSub:
        return "pubsub";
    case NanomsgProtocol::Unknown:
        break;
    }
    return "unknown";
}

Buffer produceInitialInfoPacket(const InitialInfo& info)
{
    Buffer packet;
    writeLittleEndian(packet, packet.size(), info.version);
    appendTerminatedString(packet, info.timeSyncIPAddress);
    writeLittleEndian(packet, packet.size(), info.timeSyncPort);
    packet.push_back(static_cast<std::uint8_t>(info.timeSyncProtocol));
    packet.push_back(static_cast<std::uint8_t>(info.nanomsgProtocol));
    appendTerminatedString(packet, info.nanomsgURI);
    return packet;
}

InitialInfo parseInitialInfoPacket(const ByteView& packetData)
{
    ByteCursor cursor(packetData);
    InitialInfo info{};
    info.version = cursor.read<std::uint16_t>().value_or(0);
    info.timeSyncIPAddress = cursor.readTerminatedString().value_or("");
    info.timeSyncPort = cursor.read<std::uint16_t>().value_or(0);
    info.timeSyncProtocol = static_cast<TimeSyncProtocol>(cursor.read<std::uint8_t>().value_or(0));
    info.nanomsgProtocol = static_cast<NanomsgProtocol>(cursor.read<std::uint8_t>().value_or(0));
    info.nanomsgURI = cursor.readTerminatedString().value_or("");

    const bool ok = cursor.isOk();
    assert(ok);
    return info;
}

} // namespace vlx
