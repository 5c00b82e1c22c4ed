/// Raw nanomsg pub/sub over IPC. Variant "same": our socket options, the limit of our design.
/// "polls": the same, and each poll watches as many descriptors as ours, with our time-out; it shows
/// what waiting costs us. Otherwise the library's default buffers.

#include <thread>
#include <vector>

#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "PeerPacket.hpp"

namespace vlx::bench
{
namespace
{

constexpr const char* PollsVariant = "polls";
constexpr int SmallestBuffer = 1;
constexpr int NoSizeLimit = -1;
constexpr int OurTimeoutMs = 50;

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

// Whether the variant sets the buffers as we do.
bool hasOurOptions(const Link& link)
{
    return !link.variant.empty();
}

// What a poll watches: nanomsg's descriptor, and in variant "polls" descriptors on which nothing
// ever happens, as it is with our wakeup pipes and sidechannel while frames flow.
class WaitSet
{
public:
    WaitSet() = default;
    WaitSet(const WaitSet&) = delete;
    WaitSet& operator=(const WaitSet&) = delete;

    ~WaitSet()
    {
        for (const int fd : m_idleFDs)
            close(fd);
    }

    void watch(int fd)
    {
        m_entries.push_back({fd, POLLIN, 0});
    }

    void watchIdlePipe()
    {
        int ends[2];
        if (pipe(ends) == 0)
            keep(ends);
    }

    void watchIdleSocket()
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0)
            keep(ends);
    }

    void setTimeout(int timeoutMs)
    {
        m_timeoutMs = timeoutMs;
    }

    void wait()
    {
        while (poll(m_entries.data(), m_entries.size(), m_timeoutMs) <= 0)
        {
        }
    }

private:
    void keep(const int (&ends)[2])
    {
        m_idleFDs.insert(m_idleFDs.end(), ends, ends + 2);
        watch(ends[0]);
    }

    std::vector<pollfd> m_entries;
    std::vector<int> m_idleFDs; // owned
    int m_timeoutMs = -1;
};

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
               (!hasOurOptions(m_link) || setOption(m_socketFD, NN_SNDBUF, SmallestBuffer)) &&
               watchSendable();
    }

    std::span<std::uint8_t> media() override
    {
        return m_packet.media();
    }

    void send(std::uint64_t timestampNs) override
    {
        const auto bytes = m_packet.stamp(timestampNs);
        m_waitSet.wait();
        nn_send(m_socketFD, bytes.data(), bytes.size(), NN_DONTWAIT);
    }

private:
    bool watchSendable()
    {
        int watchFD = -1; // owned by nanomsg
        if (!getOption(m_socketFD, NN_SNDFD, watchFD))
            return false;
        if (m_link.variant == PollsVariant)
            m_waitSet.watchIdlePipe();
        m_waitSet.watch(watchFD);
        return true;
    }

    Link m_link;
    PeerPacket m_packet;
    int m_socketFD = -1;
    WaitSet m_waitSet;
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
               (!hasOurOptions(m_link) || setOption(m_socketFD, NN_RCVBUF, SmallestBuffer)) &&
               setOption(m_socketFD, NN_RCVMAXSIZE, NoSizeLimit) && watchReceivable();
    }

    bool watchReceivable()
    {
        int watchFD = -1; // owned by nanomsg
        if (!getOption(m_socketFD, NN_RCVFD, watchFD))
            return false;
        if (m_link.variant != PollsVariant)
        {
            m_waitSet.watch(watchFD);
            return true;
        }
        m_waitSet.watchIdlePipe();
        m_waitSet.watch(watchFD);
        m_waitSet.watchIdleSocket();
        m_waitSet.setTimeout(OurTimeoutMs);
        return true;
    }

    void receiveForever(const FrameHandler& handler)
    {
        while (true)
        {
            m_waitSet.wait();
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
    WaitSet m_waitSet;
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
