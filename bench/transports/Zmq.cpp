/// ZeroMQ pub/sub over IPC. Variant "tuned": what its manual names for a reader who only wants the
/// newest message: ZMQ_CONFLATE with high-water marks of 1, and ZMQ_IMMEDIATE so that nothing is
/// queued for a connection that does not stand yet.

#include <thread>

#include <zmq.h>

#include "PeerPacket.hpp"

namespace vlx::bench
{
namespace
{

constexpr const char* TunedVariant = "tuned";

std::string makeUri(const Link& link)
{
    return "ipc://" + link.directory + "/" + link.name + ".zmq";
}

bool checkZmq(bool ok, const char* call)
{
    return check(ok, call, zmq_strerror(zmq_errno()));
}

bool setOption(void* socket, int option, int value)
{
    return checkZmq(zmq_setsockopt(socket, option, &value, sizeof value) == 0, "zmq_setsockopt");
}

bool tune(void* socket, int highWaterMark)
{
    return setOption(socket, highWaterMark, 1) && setOption(socket, ZMQ_CONFLATE, 1) &&
           setOption(socket, ZMQ_IMMEDIATE, 1);
}

class ZmqPublisher : public Publisher
{
public:
    explicit ZmqPublisher(const Link& link)
        : m_link(link), m_packet(link.mediaBytes), m_context(zmq_ctx_new())
    {
    }

    ~ZmqPublisher() override
    {
        if (m_socket)
        {
            setOption(m_socket, ZMQ_LINGER, 0);
            zmq_close(m_socket);
        }
        zmq_ctx_term(m_context);
    }

    bool open() override
    {
        m_socket = zmq_socket(m_context, ZMQ_PUB);
        return checkZmq(m_socket != nullptr, "zmq_socket") &&
               (m_link.variant != TunedVariant || tune(m_socket, ZMQ_SNDHWM)) &&
               checkZmq(zmq_bind(m_socket, makeUri(m_link).c_str()) == 0, "zmq_bind");
    }

    std::span<std::uint8_t> media() override
    {
        return m_packet.media();
    }

    void send(std::uint64_t timestampNs) override
    {
        const auto bytes = m_packet.stamp(timestampNs);
        zmq_send(m_socket, bytes.data(), bytes.size(), ZMQ_DONTWAIT);
    }

private:
    Link m_link;
    PeerPacket m_packet;
    void* m_context;
    void* m_socket = nullptr;
};

class ZmqSubscriber : public Subscriber
{
public:
    explicit ZmqSubscriber(const Link& link) : m_link(link), m_context(zmq_ctx_new()) {}

    bool start(FrameHandler handler) override
    {
        m_socket = zmq_socket(m_context, ZMQ_SUB);
        if (!checkZmq(m_socket != nullptr, "zmq_socket") ||
            (m_link.variant == TunedVariant && !tune(m_socket, ZMQ_RCVHWM)) ||
            !checkZmq(zmq_setsockopt(m_socket, ZMQ_SUBSCRIBE, "", 0) == 0, "subscribe") ||
            !checkZmq(zmq_connect(m_socket, makeUri(m_link).c_str()) == 0, "zmq_connect"))
            return false;
        std::thread([this, handler = std::move(handler)] { receiveForever(handler); }).detach();
        return true;
    }

private:
    void receiveForever(const FrameHandler& handler) const
    {
        zmq_msg_t message;
        zmq_msg_init(&message);
        while (true)
        {
            if (zmq_msg_recv(&message, m_socket, 0) >= 0)
                deliverPeerPacket(handler, zmq_msg_data(&message), zmq_msg_size(&message));
        }
    }

    Link m_link;
    void* m_context;
    void* m_socket = nullptr;
};

} // namespace

std::unique_ptr<Publisher> makePublisher(const Link& link)
{
    return std::make_unique<ZmqPublisher>(link);
}

std::unique_ptr<Subscriber> makeSubscriber(const Link& link)
{
    return std::make_unique<ZmqSubscriber>(link);
}

} // namespace vlx::bench
