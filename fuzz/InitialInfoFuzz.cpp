// A well-formed InitialInfo packet is read as its bytes say, and gives the same bytes again. One
// that is not would stop the process by its documented assertion, so it is not offered.

#include <algorithm>
#include <optional>

#include <vlx/SideChannel.hpp>

#include "support/Check.hpp"
#include "support/ListModel.hpp"

namespace
{

using namespace vlx;
using fuzz::check;

constexpr std::size_t VersionBytes = 2;
constexpr std::size_t BytesBetweenStrings = 4; // port and the two protocols

struct Layout
{
    ByteView address;
    ByteView afterAddress;
    ByteView uri;
    std::size_t size; // without what follows the packet
};

/// @return length of the string at the front, if it ends there
std::optional<std::size_t> findEnd(const ByteView& bytes)
{
    const auto end = std::find(bytes.begin(), bytes.end(), 0);
    if (end == bytes.end())
        return std::nullopt;
    return static_cast<std::size_t>(end - bytes.begin());
}

std::optional<Layout> findLayout(const ByteView& packet)
{
    if (packet.size() < VersionBytes)
        return std::nullopt;
    const ByteView fromAddress = packet.subspan(VersionBytes);
    const auto addressLength = findEnd(fromAddress);
    if (!addressLength || fromAddress.size() - *addressLength - 1 < BytesBetweenStrings)
        return std::nullopt;
    const ByteView afterAddress = fromAddress.subspan(*addressLength + 1);
    const ByteView fromUri = afterAddress.subspan(BytesBetweenStrings);
    const auto uriLength = findEnd(fromUri);
    if (!uriLength)
        return std::nullopt;
    return Layout{
        fromAddress.subspan(0, *addressLength), afterAddress, fromUri.subspan(0, *uriLength),
        VersionBytes + *addressLength + 1 + BytesBetweenStrings + *uriLength + 1};
}

template <class Protocol>
void checkName(Protocol protocol, Protocol reread)
{
    const bool isKnown =
        static_cast<std::int32_t>(protocol) == 1 || static_cast<std::int32_t>(protocol) == 2;
    check(
        reread == (isKnown ? protocol : Protocol::Unknown),
        "a protocol's name stands for it, and for no other");
}

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const ByteView packet(data, size);
    const auto layout = findLayout(packet);
    if (!layout)
        return 0;

    const InitialInfo info = parseInitialInfoPacket(packet);
    check(info.version == fuzz::readField(packet, 0, 2), "the version is the packet's");
    check(
        std::equal(
            info.timeSyncIPAddress.begin(), info.timeSyncIPAddress.end(), layout->address.begin(),
            layout->address.end(),
            [](char c, unsigned char byte) { return static_cast<unsigned char>(c) == byte; }),
        "the address is the packet's");
    check(
        info.timeSyncPort == fuzz::readField(layout->afterAddress, 0, 2),
        "the port is the packet's");
    check(
        static_cast<std::int32_t>(info.timeSyncProtocol) == layout->afterAddress[2] &&
            static_cast<std::int32_t>(info.nanomsgProtocol) == layout->afterAddress[3],
        "the protocols are the packet's");
    check(info.nanomsgURI.size() == layout->uri.size(), "the URI is as long as the packet's");

    const Buffer again = produceInitialInfoPacket(info);
    check(
        std::equal(
            again.begin(), again.end(), packet.begin(), packet.subspan(0, layout->size).end()),
        "a packet that was read is produced again");

    checkName(info.timeSyncProtocol, toTimeSyncProtocol(toString(info.timeSyncProtocol)));
    checkName(info.nanomsgProtocol, toNanomsgProtocol(toString(info.nanomsgProtocol)));
    check(
        toTimeSyncProtocol(info.timeSyncIPAddress) == TimeSyncProtocol::Unknown ||
            info.timeSyncIPAddress == toString(toTimeSyncProtocol(info.timeSyncIPAddress)),
        "only a protocol's own name stands for it");
    return 0;
}
