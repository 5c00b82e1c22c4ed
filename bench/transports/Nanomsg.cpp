/// Raw nanomsg pub/sub over IPC. Variant "same": our socket options, the limit of our design.
/// "polls": the same, and each poll watches as many descriptors as ours, with our timeout; it
/// shows the cost of our waiting. Otherwise the library's default buffers.

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
constexpr int IdlePipe = -1; // in place of a socket's domain

void requireNanomsg(bool ok, const char* call)
{
    require(ok, call, nn_strerror(nn_errno()));
}

void setOption(int socket, int option, int value)
{
    requireNanomsg(
        nn_setsockopt(socket, NN_SOL_SOCKET, option, &value, sizeof value) == 0, "nn_setsockopt");
}

// What a poll watches: nanomsg's descriptor, and in variant "polls" descriptors on which nothing
// ever happens, as it is with our wakeup pipes and sidechannel while frames flow.
struct WaitSet
{
    std::vector<pollfd> entries;
    int timeoutMs = -1;

    // nanomsg's own descriptor: NN_SNDFD or NN_RCVFD.
    void watch(int socket, int option)
    {
        std::size_t size = sizeof(int);
        pollfd& entry = entries.emplace_back(pollfd{-1, POLLIN, 0});
        requireNanomsg(
            nn_getsockopt(socket, NN_SOL_SOCKET, option, &entry.fd, &size) == 0, "nn_getsockopt");
    }

    // Open as long as the process lives.
    void watchIdle(int domain)
    {
        int ends[2] = {-1, -1}; // poll() passes over these
        if (domain == IdlePipe ? pipe(ends) : socketpair(domain, SOCK_STREAM, 0, ends))
            std::perror("pipe or socketpair");
        entries.push_back({ends[0], POLLIN, 0});
    }

    void wait()
    {
        while (poll(entries.data(), entries.size(), timeoutMs) <= 0)
        {
        }
    }
};

// Creates a socket with an endpoint, then sets the options of all variants except the default, in
// the order that our sockets use.
int makeSocket(const Plan& plan, int type, decltype(&nn_bind) open, int bufferOption)
{
    const int socket = nn_socket(AF_SP, type);
    requireNanomsg(
        type != NN_SUB || nn_setsockopt(socket, NN_SUB, NN_SUB_SUBSCRIBE, "", 0) == 0, "subscribe");
    requireNanomsg(open(socket, plan.getURL().c_str()) >= 0, "nn_bind or nn_connect");
    if (!plan.variant.empty())
        setOption(socket, bufferOption, SmallestBuffer);
    return socket;
}

} // namespace

SendFrame openStream(const Plan& plan)
{
    const int socket = makeSocket(plan, NN_PUB, nn_bind, NN_SNDBUF);
    const std::shared_ptr<void> socketGuard(nullptr, [socket](void*) { nn_close(socket); });
    WaitSet waitSet;
    if (plan.variant == "polls")
        waitSet.watchIdle(IdlePipe);
    waitSet.watch(socket, NN_SNDFD);
    return [socket, socketGuard, waitSet](std::uint64_t, Bytes packet) mutable
    {
        waitSet.wait();
        nn_send(socket, packet.data(), packet.size(), NN_DONTWAIT);
    };
}

void startReceiving(const Plan& plan, FrameHandler handler)
{
    const int socket = makeSocket(plan, NN_SUB, nn_connect, NN_RCVBUF);
    setOption(socket, NN_RCVMAXSIZE, NoSizeLimit);
    WaitSet waitSet;
    if (plan.variant == "polls")
    {
        waitSet.watchIdle(IdlePipe);
        waitSet.watchIdle(AF_UNIX);
        waitSet.timeoutMs = OurTimeoutMs;
    }
    waitSet.watch(socket, NN_RCVFD);
    const auto receive = [socket, waitSet, handler = std::move(handler)]() mutable
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
    };
    std::thread(receive).detach();
}

} // namespace vlx::bench
