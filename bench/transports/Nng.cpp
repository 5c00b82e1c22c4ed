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

bool checkNng(int result, const char* call)
{
    return check(result == 0, call, nng_strerror(result));
}

bool tune(const Plan& plan, nng_socket socket, const char* option)
{
    return plan.variant != "tuned" || checkNng(nng_socket_set_int(socket, option, 1), option);
}

void receiveForever(nng_socket socket, const FrameHandler& handler)
{
    while (true)
    {
        nng_msg* message = nullptr;
        if (nng_recvmsg(socket, &message, 0) != 0)
            continue;
        deliverPacket(handler, nng_msg_body(message), nng_msg_len(message));
        nng_msg_free(message);
    }
}

} // namespace

SendFrame openStream(const Plan& plan)
{
    nng_socket socket = NNG_SOCKET_INITIALIZER;
    if (!checkNng(nng_pub0_open(&socket), "nng_pub0_open") ||
        !tune(plan, socket, NNG_OPT_SENDBUF) ||
        !checkNng(
            nng_listen(socket, ("ipc://" + plan.getPath(".nng")).c_str(), nullptr, 0),
            "nng_listen"))
        return {};
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

bool startReceiving(const Plan& plan, FrameHandler handler)
{
    nng_socket socket = NNG_SOCKET_INITIALIZER;
    // The dial goes on in the background, as it has to when the sender is not there yet.
    if (!checkNng(nng_sub0_open(&socket), "nng_sub0_open") ||
        !checkNng(nng_socket_set(socket, NNG_OPT_SUB_SUBSCRIBE, "", 0), "subscribe") ||
        !tune(plan, socket, NNG_OPT_RECVBUF) ||
        !checkNng(
            nng_dial(socket, ("ipc://" + plan.getPath(".nng")).c_str(), nullptr, NNG_FLAG_NONBLOCK),
            "nng_dial"))
        return false;
    std::thread(receiveForever, socket, std::move(handler)).detach();
    return true;
}

} // namespace vlx::bench
