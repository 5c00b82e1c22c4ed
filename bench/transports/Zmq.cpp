/// ZeroMQ pub/sub over IPC. Variant "tuned": what its manual names for a reader who only wants the
/// newest message: ZMQ_CONFLATE with high-water marks of 1, and ZMQ_IMMEDIATE so that nothing is
/// queued for a connection that does not stand yet.

#include <memory>
#include <thread>

#include <zmq.h>

#include "Transport.hpp"

namespace vlx::bench
{
namespace
{

void requireZmq(bool ok, const char* call)
{
    require(ok, call, zmq_strerror(zmq_errno()));
}

// Creates a socket in its own context, which is never closed.
std::shared_ptr<void> makeSocket(const Plan& plan, int type, int highWaterMark)
{
    std::shared_ptr<void> socket(zmq_socket(zmq_ctx_new(), type), zmq_close);
    requireZmq(socket != nullptr, "zmq_socket");
    const auto set = [&socket](int option, int value) {
        requireZmq(
            zmq_setsockopt(socket.get(), option, &value, sizeof value) == 0, "zmq_setsockopt");
    };
    set(ZMQ_LINGER, 0);
    if (plan.variant == "tuned")
        for (const int option : {highWaterMark, ZMQ_CONFLATE, ZMQ_IMMEDIATE})
            set(option, 1);
    return socket;
}

} // namespace

SendFrame openStream(const Plan& plan)
{
    const auto socket = makeSocket(plan, ZMQ_PUB, ZMQ_SNDHWM);
    requireZmq(zmq_bind(socket.get(), plan.getURL().c_str()) == 0, "zmq_bind");
    return [socket](std::uint64_t, Bytes packet)
    { zmq_send(socket.get(), packet.data(), packet.size(), ZMQ_DONTWAIT); };
}

void startReceiving(const Plan& plan, FrameHandler handler)
{
    const auto socket = makeSocket(plan, ZMQ_SUB, ZMQ_RCVHWM);
    requireZmq(zmq_setsockopt(socket.get(), ZMQ_SUBSCRIBE, "", 0) == 0, "subscribe");
    requireZmq(zmq_connect(socket.get(), plan.getURL().c_str()) == 0, "zmq_connect");
    const auto receive = [socket, handler = std::move(handler)]
    {
        zmq_msg_t message;
        zmq_msg_init(&message);
        while (true)
        {
            if (zmq_msg_recv(&message, socket.get(), 0) >= 0)
                deliverPacket(handler, zmq_msg_data(&message), zmq_msg_size(&message));
        }
    };
    std::thread(receive).detach();
}

} // namespace vlx::bench
