/// nng pub/sub over IPC. Variant "tuned": buffers of one message on both sides, the newest kept, as
/// its manual suggests for readers who prefer fresh data.

#include <memory>
#include <thread>

#include <nng/nng.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>

#include "Transport.hpp"

namespace vlx::bench
{
namespace
{

void requireNng(int result, const char* call)
{
    require(result == 0, call, nng_strerror(result));
}

void tune(const Plan& plan, nng_socket socket, const char* option)
{
    if (plan.variant == "tuned")
        requireNng(nng_socket_set_int(socket, option, 1), option);
}

} // namespace

SendFrame openStream(const Plan& plan)
{
    nng_socket socket = NNG_SOCKET_INITIALIZER;
    requireNng(nng_pub0_open(&socket), "nng_pub0_open");
    tune(plan, socket, NNG_OPT_SENDBUF);
    requireNng(nng_listen(socket, plan.getURL().c_str(), nullptr, 0), "nng_listen");
    const std::shared_ptr<void> socketGuard(nullptr, [socket](void*) { nng_close(socket); });
    return [socket, socketGuard](std::uint64_t, Bytes packet)
    {
        nng_msg* message = nullptr;
        if (nng_msg_alloc(&message, packet.size()) != 0)
            return;
        std::memcpy(nng_msg_body(message), packet.data(), packet.size());
        if (nng_sendmsg(socket, message, NNG_FLAG_NONBLOCK) != 0)
            nng_msg_free(message);
    };
}

void startReceiving(const Plan& plan, FrameHandler handler)
{
    nng_socket socket = NNG_SOCKET_INITIALIZER;
    requireNng(nng_sub0_open(&socket), "nng_sub0_open");
    requireNng(nng_socket_set(socket, NNG_OPT_SUB_SUBSCRIBE, "", 0), "subscribe");
    tune(plan, socket, NNG_OPT_RECVBUF);
    // The dial continues in the background, since the sender may not be running yet.
    requireNng(nng_dial(socket, plan.getURL().c_str(), nullptr, NNG_FLAG_NONBLOCK), "nng_dial");
    const auto receive = [socket, handler = std::move(handler)]
    {
        for (nng_msg* message = nullptr; true;)
        {
            if (nng_recvmsg(socket, &message, 0) != 0)
                continue;
            deliverPacket(handler, nng_msg_body(message), nng_msg_len(message));
            nng_msg_free(message);
        }
    };
    std::thread(receive).detach();
}

} // namespace vlx::bench
