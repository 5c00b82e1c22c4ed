/// Raw nanomsg pub/sub over IPC. Variant "same": our socket options, the limit of our design.
/// "polls": the same, and each poll watches as many descriptors as ours, with our time-out; it shows
/// what waiting costs us. Otherwise the library's default buffers.

#include <memory>
#include <thread>
#include <vector>

#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Transport.hpp"

namespace vlx::bench
{
namespace
{

constexpr int SmallestBuffer = 1;
constexpr int NoSizeLimit = -1;
constexpr int OurTimeoutMs = 50;

bool checkNanomsg(bool ok, const char* call)
{
    return check(ok, call, nn_strerror(nn_errno()));
}

bool setOption(int socket, int option, int value)
{
    return checkNanomsg(
        nn_setsockopt(socket, NN_SOL_SOCKET, option, &value, sizeof value) == 0, "nn_setsockopt");
}

std::string makeUri(const Link& link)
{
    return "ipc://" + link.directory + "/" + link.name + ".ipc";
}

// What a poll watches: nanomsg's descriptor, and in variant "polls" descriptors on which nothing
// ever happens, as it is with our wakeup pipes and sidechannel while frames flow.
class WaitSet
{
public:
    // nanomsg's own descriptor: NN_SNDFD or NN_RCVFD.
    bool watch(int socket, int option)
    {
        int fd = -1; // owned by nanomsg
        std::size_t size = sizeof fd;
        const bool ok = nn_getsockopt(socket, NN_SOL_SOCKET, option, &fd, &size) == 0;
        m_entries.push_back({fd, POLLIN, 0});
        return checkNanomsg(ok, "nn_getsockopt");
    }

    // Takes what pipe() or socketpair() has made; open as long as the process lives.
    void watchIdle(int result, const int (&ends)[2])
    {
        if (result == 0)
            m_entries.push_back({ends[0], POLLIN, 0});
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
    std::vector<pollfd> m_entries;
    int m_timeoutMs = -1;
};

void receiveForever(int socket, WaitSet waitSet, const FrameHandler& handler)
{
    while (true)
    {
        waitSet.wait();
        void* message = nullptr;
        const int size = nn_recv(socket, &message, NN_MSG, NN_DONTWAIT);
        if (size < 0)
            continue;
        deliverPacket(handler, message, static_cast<std::size_t>(size));
        nn_freemsg(message);
    }
}

} // namespace

SendFrame openStream(const Link& link)
{
    const int socket = nn_socket(AF_SP, NN_PUB);
    const std::shared_ptr<void> socketGuard(nullptr, [socket](void*) { nn_close(socket); });
    WaitSet waitSet;
    int ends[2];
    if (link.variant == "polls")
        waitSet.watchIdle(pipe(ends), ends);
    if (!checkNanomsg(nn_bind(socket, makeUri(link).c_str()) >= 0, "nn_bind") ||
        (!link.variant.empty() && !setOption(socket, NN_SNDBUF, SmallestBuffer)) ||
        !waitSet.watch(socket, NN_SNDFD))
        return {};
    return [socket, socketGuard, waitSet](std::uint64_t, Bytes packet) mutable
    {
        waitSet.wait();
        nn_send(socket, packet.data(), packet.size(), NN_DONTWAIT);
    };
}

bool startReceiving(const Link& link, FrameHandler handler)
{
    const int socket = nn_socket(AF_SP, NN_SUB);
    WaitSet waitSet;
    int ends[2];
    if (link.variant == "polls")
    {
        waitSet.watchIdle(pipe(ends), ends);
        waitSet.watchIdle(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), ends);
        waitSet.setTimeout(OurTimeoutMs);
    }
    if (!checkNanomsg(nn_setsockopt(socket, NN_SUB, NN_SUB_SUBSCRIBE, "", 0) == 0, "subscribe") ||
        !checkNanomsg(nn_connect(socket, makeUri(link).c_str()) >= 0, "nn_connect") ||
        (!link.variant.empty() && !setOption(socket, NN_RCVBUF, SmallestBuffer)) ||
        !setOption(socket, NN_RCVMAXSIZE, NoSizeLimit) || !waitSet.watch(socket, NN_RCVFD))
        return false;
    std::thread(receiveForever, socket, waitSet, std::move(handler)).detach();
    return true;
}

} // namespace vlx::bench
