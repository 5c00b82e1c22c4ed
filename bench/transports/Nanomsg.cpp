/// Raw nanomsg pub/sub over IPC. Variant "same": our socket options, the limit of our design.
/// Otherwise the library's default buffers.

#include <cerrno>
#include <thread>

#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>
#include <poll.h>

#include "PeerPacket.hpp"

namespace vlx::bench
{
namespace
{

constexpr const char* SameVariant = "same";
constexpr int SmallestBuffer = 1;
constexpr int NoSizeLimit = -1;

std::string makeUri(const Link& link)
{
    return "ipc://" + link.directory + "/" + link.name + ".ipc";
}

bool checkNanomsg(bool ok, const char* call)
{
    return check(ok, call, nn_strerror(nn_errno()));
}

bool setOption(int fd, int option, int value)
{
    return checkNanomsg(
        nn_setsockopt(fd, NN_SOL_SOCKET, option, &value, sizeof value) == 0, "nn_setsockopt");
}

bool getOption(int fd, int option, int& value)
{
    std::size_t size = sizeof value;
    return checkNanomsg(
        nn_getsockopt(fd, NN_SOL_SOCKET, option, &value, &size) == 0, "nn_getsockopt");
}

void waitReadable(int fd)
{
    pollfd entry{fd, POLLIN, 0};
    while (poll(&entry, 1, -1) < 0 && errno == EINTR)
    {
    }
}

class NanomsgPublisher : public Publisher
{
public:
    explicit NanomsgPublisher(const Link& link) : m_link(link), m_packet(link.mediaBytes) {}

    ~NanomsgPublisher() override
    {
        if (m_socketFD >= 0)
            nn_close(m_socketFD);
    }

    bool open() override
    {
        m_socketFD = nn_socket(AF_SP, NN_PUB);
        return checkNanomsg(m_socketFD >= 0, "nn_socket") &&
               checkNanomsg(nn_bind(m_socketFD, makeUri(m_link).c_str()) >= 0, "nn_bind") &&
               (m_link.variant != SameVariant ||
                setOption(m_socketFD, NN_SNDBUF, SmallestBuffer)) &&
               getOption(m_socketFD, NN_SNDFD, m_watchFD);
    }

    std::span<std::uint8_t> media() override
    {
        return m_packet.media();
    }

    void send(std::uint64_t timestampNs) override
    {
        const auto bytes = m_packet.stamp(timestampNs);
        waitReadable(m_watchFD);
        nn_send(m_socketFD, bytes.data(), bytes.size(), NN_DONTWAIT);
    }

private:
    Link m_link;
    PeerPacket m_packet;
    int m_socketFD = -1;
    int m_watchFD = -1; // owned by nanomsg
};

class NanomsgSubscriber : public Subscriber
{
public:
    explicit NanomsgSubscriber(const Link& link) : m_link(link) {}

    bool start(FrameHandler handler) override
    {
        if (!connectSocket())
            return false;
        std::thread([this, handler = std::move(handler)] { receiveForever(handler); }).detach();
        return true;
    }

private:
    bool connectSocket()
    {
        m_socketFD = nn_socket(AF_SP, NN_SUB);
        return checkNanomsg(m_socketFD >= 0, "nn_socket") &&
               checkNanomsg(
                   nn_setsockopt(m_socketFD, NN_SUB, NN_SUB_SUBSCRIBE, "", 0) == 0, "subscribe") &&
               checkNanomsg(nn_connect(m_socketFD, makeUri(m_link).c_str()) >= 0, "nn_connect") &&
               (m_link.variant != SameVariant ||
                setOption(m_socketFD, NN_RCVBUF, SmallestBuffer)) &&
               setOption(m_socketFD, NN_RCVMAXSIZE, NoSizeLimit) &&
               getOption(m_socketFD, NN_RCVFD, m_watchFD);
    }

    void receiveForever(const FrameHandler& handler) const
    {
        while (true)
        {
            waitReadable(m_watchFD);
            void* message = nullptr;
            const int size = nn_recv(m_socketFD, &message, NN_MSG, NN_DONTWAIT);
            if (size < 0)
                continue;
            deliverPeerPacket(handler, message, static_cast<std::size_t>(size));
            nn_freemsg(message);
        }
    }

    Link m_link;
    int m_socketFD = -1;
    int m_watchFD = -1; // owned by nanomsg
};

} // namespace

std::unique_ptr<Publisher> makePublisher(const Link& link)
{
    return std::make_unique<NanomsgPublisher>(link);
}

std::unique_ptr<Subscriber> makeSubscriber(const Link& link)
{
    return std::make_unique<NanomsgSubscriber>(link);
}

} // namespace vlx::bench
