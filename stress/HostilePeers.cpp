// Local processes that misbehave: clients of a sender, and impostors that hold a sender's name.

#include <algorithm>
#include <vector>

#include <support/RawPeers.hpp>
#include <sys/socket.h>
#include <sys/un.h>

#include "Fleet.hpp"

namespace vlx::stress
{

namespace
{

using testing::Descriptor;
using testing::RawConnection;
using testing::RawSidechannelClient;
using testing::RawSidechannelServer;

constexpr std::size_t RubbishBytes = 4096;
constexpr std::size_t IpcUriPrefixLength = 6; // "ipc://"

// What peers say on the main channel's socket: first a greeting, which is answered by one of the
// same length; then type, length (big-endian) and bytes of each message.
const Buffer SubscriberGreeting = {0, 'S', 'P', 0, 0, 33, 0, 0};
const Buffer PusherGreeting = {0, 'S', 'P', 0, 0, 80, 0, 0};
const Buffer OneByteMessage = {1, 0, 0, 0, 0, 0, 0, 0, 1, 'x'};
const Buffer EndlessMessage = {1, 255, 255, 255, 255, 255, 255, 255, 255};

RawConnection connectToFile(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    Descriptor descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
        0)
        descriptor.close();
    return RawConnection(std::move(descriptor));
}

/// Joins the main channel that a sender announces on the sidechannel.
RawConnection joinMainChannel(RawConnection& sidechannel)
{
    const auto greeting = sidechannel.readMessage();
    if (!greeting)
        return RawConnection(Descriptor());
    return connectToFile(parseInitialInfoPacket(*greeting).nanomsgURI.substr(IpcUriPrefixLength));
}

[[noreturn]] void waitForKill(Slot& slot)
{
    slot.ready = true;
    while (true)
        letPass(1'000);
}

int churn(Slot& slot)
{
    slot.ready = true;
    for (; slot.joins < slot.config.numFrames; ++slot.joins)
        if (!RawSidechannelClient(slot.config.name.data()).isOpen())
            return ExitBroken;
    return ExitDone;
}

/// Joins both channels and sends something there, but never reads.
int sendOnce(Slot& slot, const Buffer& greeting, const Buffer& message)
{
    RawSidechannelClient sidechannel(slot.config.name.data());
    RawConnection mainChannel = joinMainChannel(sidechannel);
    if (!mainChannel.isOpen() || !mainChannel.send(greeting))
        return ExitBroken;
    mainChannel.readBytes(greeting.size());
    mainChannel.send(message);
    slot.joins = 1;
    waitForKill(slot);
}

Buffer makeRubbish(std::size_t size)
{
    Buffer bytes(size);
    std::generate(
        bytes.begin(), bytes.end(), [] { return static_cast<std::uint8_t>(pickRandom(0, 255)); });
    return bytes;
}

/// Writes rubbish; joins again whenever the sender throws it out. On the main channel every second
/// connection greets first and announces the longest of all messages.
int writeRubbish(Slot& slot, bool toMainChannel)
{
    slot.ready = true;
    for (bool isGreeting = false;; isGreeting = !isGreeting)
    {
        RawSidechannelClient sidechannel(slot.config.name.data());
        RawConnection mainChannel =
            toMainChannel ? joinMainChannel(sidechannel) : RawConnection(Descriptor());
        RawConnection& channel = toMainChannel ? mainChannel : sidechannel;
        if (!channel.isOpen())
            return ExitBroken;
        if (toMainChannel && isGreeting && channel.send(SubscriberGreeting))
            channel.send(EndlessMessage);
        do
            ++slot.joins;
        while (channel.send(makeRubbish(RubbishBytes)));
    }
}

int greetMalformed(Slot& slot)
{
    RawSidechannelServer server(slot.config.name.data());
    RawConnection client = server.accept();
    client.send(testing::makeSidechannelMessage({1, 0, 'n', 'o', ' ', 'e', 'n', 'd'}));
    waitForKill(slot);
}

/// Random packets of every small size. Many get past the sequence filter, and select a codec.
Buffer makeRubbishPacket()
{
    constexpr std::array<unsigned char, 6> Plausible = {1, 0, 'P', 'C', 'M', 'A'};
    Buffer packet = makeRubbish(static_cast<std::size_t>(pickRandom(1, 40)));
    packet[0] = static_cast<std::uint8_t>(pickRandom(0, 3));
    if (packet.size() >= Plausible.size() + 2 && pickRandom(0, 1) == 0)
        std::copy(Plausible.begin(), Plausible.end(), packet.begin() + 2);
    return packet;
}

/// Greets properly whoever comes, and publishes rubbish.
int imposeAsSender(Slot& slot)
{
    constexpr int PacketsPerTurn = 20;
    InitialInfo info = {};
    info.version = 1;
    info.timeSyncProtocol = TimeSyncProtocol::MonotonicSystemClock;
    info.nanomsgProtocol = NanomsgProtocol::PubSub;
    info.nanomsgURI = std::string("ipc://") + std::getenv("TMPDIR") + "/impostor.ipc";
    RawSidechannelServer server(slot.config.name.data());
    testing::RawNanomsgPub publisher;
    if (!server.isListening() || !publisher.bind(info.nanomsgURI))
        return ExitBroken;
    std::vector<RawConnection> clients;
    while (true)
    {
        RawConnection client = server.accept(std::chrono::milliseconds(1));
        if (client.isOpen() &&
            client.send(testing::makeSidechannelMessage(produceInitialInfoPacket(info))))
            clients.push_back(std::move(client));
        for (int i = 0; i < PacketsPerTurn; ++i)
            publisher.send(makeRubbishPacket(), std::chrono::milliseconds(0));
        slot.joins += PacketsPerTurn;
    }
}

} // namespace

int runHostilePeer(Slot& slot)
{
    switch (slot.config.role)
    {
    case Role::ChurnClient:
        return churn(slot);
    case Role::SilentClient:
        return sendOnce(slot, SubscriberGreeting, {});
    case Role::MessageToPublisher:
        return sendOnce(slot, SubscriberGreeting, OneByteMessage);
    case Role::MessageToPuller:
        return sendOnce(slot, PusherGreeting, EndlessMessage);
    case Role::RubbishSidechannel:
        return writeRubbish(slot, false);
    case Role::RubbishMainChannel:
        return writeRubbish(slot, true);
    case Role::ImpostorInitialInfo:
        return greetMalformed(slot);
    case Role::ImpostorPackets:
        return imposeAsSender(slot);
    case Role::Sender:
    case Role::Receiver:
        break;
    }
    return ExitBroken;
}

} // namespace vlx::stress
