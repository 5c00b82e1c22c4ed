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

bool checkZmq(bool ok, const char* call)
{
    return check(ok, call, zmq_strerror(zmq_errno()));
}

bool setOption(void* socket, int option, int value)
{
    return checkZmq(zmq_setsockopt(socket, option, &value, sizeof value) == 0, "zmq_setsockopt");
}

// Makes a socket in a context of its own, which lasts as long as the process.
std::shared_ptr<void> makeSocket(const Plan& plan, int type, int highWaterMark)
{
    const std::shared_ptr<void> socket(zmq_socket(zmq_ctx_new(), type), zmq_close);
    const bool ready = checkZmq(socket != nullptr, "zmq_socket") &&
                       setOption(socket.get(), ZMQ_LINGER, 0) &&
                       (plan.variant != "tuned" || (setOption(socket.get(), highWaterMark, 1) &&
                                                    setOption(socket.get(), ZMQ_CONFLATE, 1) &&
                                                    setOption(socket.get(), ZMQ_IMMEDIATE, 1)));
    return ready ? socket : nullptr;
}

void receiveForever(const std::shared_ptr<void>& socket, const FrameHandler& handler)
{
    zmq_msg_t message;
    zmq_msg_init(&message);
    while (true)
    {
        if (zmq_msg_recv(&message, socket.get(), 0) >= 0)
            deliverPacket(handler, zmq_msg_data(&message), zmq_msg_size(&message));
    }
}

} // namespace

SendFrame openStream(const Plan& plan)
{
    const auto socket = makeSocket(plan, ZMQ_PUB, ZMQ_SNDHWM);
    if (!socket ||
        !checkZmq(
            zmq_bind(socket.get(), ("ipc://" + plan.getPath(".zmq")).c_str()) == 0, "zmq_bind"))
        return {};
    return [socket](std::uint64_t, Bytes packet)
    { zmq_send(socket.get(), packet.data(), packet.size(), ZMQ_DONTWAIT); };
}

bool startReceiving(const Plan& plan, FrameHandler handler)
{
    const auto socket = makeSocket(plan, ZMQ_SUB, ZMQ_RCVHWM);
    if (!socket ||
        !checkZmq(zmq_setsockopt(socket.get(), ZMQ_SUBSCRIBE, "", 0) == 0, "subscribe") ||
        !checkZmq(
            zmq_connect(socket.get(), ("ipc://" + plan.getPath(".zmq")).c_str()) == 0,
            "zmq_connect"))
        return false;
    std::thread(receiveForever, socket, std::move(handler)).detach();
    return true;
}

} // namespace vlx::bench
