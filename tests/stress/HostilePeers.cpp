// Local processes that misbehave: clients of a sender, and impostors that hold a sender's name.

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <SystemHelpers.hpp>
#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Workers.hpp"

namespace vlx::stress
{

namespace
{

constexpr std::size_t RubbishBytes = 4096;
constexpr std::size_t MaxInitialInfoBytes = 4096;
constexpr std::string_view IpcUriPrefix = "ipc://";
constexpr int ImpostorBacklog = 64;

/// What a subscriber says first on the main channel's socket.
constexpr std::array<unsigned char, 8> SubscriberGreeting = {0, 'S', 'P', 0, 0, 33, 0, 0};
/// Type and length, big-endian.
constexpr std::array<unsigned char, 9> EndlessMessage = {1, 255, 255, 255, 255, 255, 255, 255, 255};
/// Type and length of a message of one byte, and the byte.
constexpr std::array<unsigned char, 10> OneByteMessage = {1, 0, 0, 0, 0, 0, 0, 0, 1, 'x'};

/// A plain Unix socket that closes with the scope.
class Peer
{
public:
    explicit Peer(int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) : m_fd(fd) {}

    ~Peer()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }

    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool connectToName(const std::string& name)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const socklen_t length = setAbstractName(address, name);
        return ::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), length) == 0;
    }

    bool listenOnName(const std::string& name)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const socklen_t length = setAbstractName(address, name);
        return ::bind(m_fd, reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
               ::listen(m_fd, ImpostorBacklog) == 0;
    }

    bool connectToPath(const std::string& path)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        return ::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }

    int getFD() const
    {
        return m_fd;
    }

    bool write(const void* data, std::size_t size) const
    {
        return ::send(m_fd, data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
    }

    bool read(void* data, std::size_t size) const
    {
        return ::recv(m_fd, data, size, MSG_WAITALL) == static_cast<ssize_t>(size);
    }

private:
    const int m_fd;
};

/// @return the path of the main channel's socket, as the sender's greeting tells it
std::optional<std::string> readMainChannelPath(const Peer& sidechannel)
{
    std::uint32_t size = 0;
    if (!sidechannel.read(&size, sizeof(size)) || size > MaxInitialInfoBytes)
        return std::nullopt;
    Buffer packet(size);
    if (!sidechannel.read(packet.data(), packet.size()))
        return std::nullopt;
    return parseInitialInfoPacket(packet).nanomsgURI.substr(IpcUriPrefix.size());
}

int churn(Slot& slot)
{
    slot.ready = true;
    while (slot.joins < slot.config.numFrames && !slot.stop)
    {
        Peer client;
        if (!client.connectToName(slot.config.name.data()))
            return ExitBroken;
        ++slot.joins;
    }
    return ExitDone;
}

int keepSilent(Slot& slot)
{
    Peer sidechannel;
    Peer mainChannel;
    if (!sidechannel.connectToName(slot.config.name.data()))
        return ExitBroken;
    const auto path = readMainChannelPath(sidechannel);
    if (!path || !mainChannel.connectToPath(*path) ||
        !mainChannel.write(SubscriberGreeting.data(), SubscriberGreeting.size()))
        return ExitBroken;
    slot.ready = true;
    slot.joins = 1;
    while (!slot.stop)
        letPass(20);
    return ExitDone;
}

void fillWithRubbish(Buffer& bytes)
{
    for (std::uint8_t& byte : bytes)
        byte = static_cast<std::uint8_t>(pickRandom(0, 255));
}

/// Writes rubbish; joins again whenever the sender throws it out. On the main channel every second
/// connection greets first and announces the longest of all messages.
int writeRubbish(Slot& slot, bool toMainChannel)
{
    Buffer rubbish(RubbishBytes);
    bool isGreeting = false;
    while (!slot.stop)
    {
        Peer sidechannel;
        Peer mainChannel;
        if (!sidechannel.connectToName(slot.config.name.data()))
            return ExitBroken;
        if (toMainChannel)
        {
            const auto path = readMainChannelPath(sidechannel);
            if (!path || !mainChannel.connectToPath(*path))
                return ExitBroken;
            if (isGreeting)
                mainChannel.write(SubscriberGreeting.data(), SubscriberGreeting.size()) &&
                    mainChannel.write(EndlessMessage.data(), EndlessMessage.size());
            isGreeting = !isGreeting;
        }
        slot.ready = true;
        do
        {
            ++slot.joins;
            fillWithRubbish(rubbish);
        } while (!slot.stop &&
                 (toMainChannel ? mainChannel : sidechannel).write(rubbish.data(), rubbish.size()));
    }
    return ExitDone;
}

int sendMessageToPublisher(Slot& slot)
{
    Peer sidechannel;
    Peer mainChannel;
    if (!sidechannel.connectToName(slot.config.name.data()))
        return ExitBroken;
    const auto path = readMainChannelPath(sidechannel);
    if (!path || !mainChannel.connectToPath(*path) ||
        !mainChannel.write(SubscriberGreeting.data(), SubscriberGreeting.size()))
        return ExitBroken;
    std::array<unsigned char, SubscriberGreeting.size()> greeting = {};
    if (!mainChannel.read(greeting.data(), greeting.size()) ||
        !mainChannel.write(OneByteMessage.data(), OneByteMessage.size()))
        return ExitBroken;
    slot.ready = true;
    while (!slot.stop)
        letPass(20);
    return ExitDone;
}

bool greet(const Peer& client, const Buffer& greeting)
{
    const auto size = static_cast<std::uint32_t>(greeting.size());
    return client.write(&size, sizeof(size)) && client.write(greeting.data(), greeting.size());
}

int greetMalformed(Slot& slot)
{
    Peer listener;
    if (!listener.listenOnName(slot.config.name.data()))
        return ExitBroken;
    slot.ready = true;
    const Peer client(::accept(listener.getFD(), nullptr, nullptr));
    greet(client, {1, 0, 'n', 'o', ' ', 'e', 'n', 'd'});
    while (!slot.stop)
        letPass(20);
    return ExitDone;
}

/// Random packets of every small size. Many get past the sequence filter, and select a codec.
void publishRubbish(int publisher, int count)
{
    constexpr std::array<unsigned char, 6> Plausible = {1, 0, 'P', 'C', 'M', 'A'};
    for (int i = 0; i < count; ++i)
    {
        Buffer packet(static_cast<std::size_t>(pickRandom(1, 40)));
        fillWithRubbish(packet);
        packet[0] = static_cast<std::uint8_t>(pickRandom(0, 3));
        if (packet.size() >= Plausible.size() + 2 && pickRandom(0, 1) == 0)
            std::copy(Plausible.begin(), Plausible.end(), packet.begin() + 2);
        ::nn_send(publisher, packet.data(), packet.size(), NN_DONTWAIT);
    }
}

/// Greets properly whoever comes, and publishes rubbish.
int imposeAsSender(Slot& slot)
{
    constexpr int PacketsPerTurn = 20;
    Peer listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const std::string uri = std::string(IpcUriPrefix) + getBaseDirectory() + "/impostor.ipc";
    const int publisher = ::nn_socket(AF_SP, NN_PUB);
    if (!listener.listenOnName(slot.config.name.data()) || ::nn_bind(publisher, uri.c_str()) < 0)
        return ExitBroken;

    InitialInfo info = {};
    info.version = 1;
    info.timeSyncProtocol = TimeSyncProtocol::MonotonicSystemClock;
    info.nanomsgProtocol = NanomsgProtocol::PubSub;
    info.nanomsgURI = uri;
    const Buffer greeting = produceInitialInfoPacket(info);
    std::vector<std::unique_ptr<Peer>> clients;
    slot.ready = true;
    while (!slot.stop)
    {
        const int fd = ::accept(listener.getFD(), nullptr, nullptr);
        if (fd >= 0)
            greet(*clients.emplace_back(std::make_unique<Peer>(fd)), greeting);
        if (clients.size() > ImpostorBacklog)
            clients.erase(clients.begin());
        publishRubbish(publisher, PacketsPerTurn);
        slot.joins += PacketsPerTurn;
        letPass(1);
    }
    ::nn_close(publisher);
    return ExitDone;
}

} // namespace

int runHostilePeer(Slot& slot)
{
    switch (slot.config.role)
    {
    case Role::ChurnClient:
        return churn(slot);
    case Role::SilentClient:
        return keepSilent(slot);
    case Role::RubbishSidechannel:
        return writeRubbish(slot, false);
    case Role::RubbishMainChannel:
        return writeRubbish(slot, true);
    case Role::MessageToPublisher:
        return sendMessageToPublisher(slot);
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
