/// nng pub/sub over IPC. Variant "tuned": buffers of one message on both sides, the newest kept, as
/// its manual suggests for readers who prefer fresh data.

#include <cstring>
#include <thread>

#include <nng/nng.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>

#include "PeerPacket.hpp"

namespace vlx::bench
{
namespace
{

constexpr const char* TunedVariant = "tuned";

std::string makeUri(const Link& link)
{
    return "ipc://" + link.directory + "/" + link.name + ".nng";
}

bool checkNng(int result, const char* call)
{
    return check(result == 0, call, nng_strerror(result));
}

class NngPublisher : public Publisher
{
public:
    explicit NngPublisher(const Link& link) : m_link(link), m_packet(link.mediaBytes) {}

    ~NngPublisher() override
    {
        nng_close(m_socket);
    }

    bool open() override
    {
        return checkNng(nng_pub0_open(&m_socket), "nng_pub0_open") &&
               (m_link.variant != TunedVariant ||
                checkNng(nng_socket_set_int(m_socket, NNG_OPT_SENDBUF, 1), "NNG_OPT_SENDBUF")) &&
               checkNng(nng_listen(m_socket, makeUri(m_link).c_str(), nullptr, 0), "nng_listen");
    }

    std::span<std::uint8_t> media() override
    {
        return m_packet.media();
    }

    void send(std::uint64_t timestampNs) override
    {
        const auto bytes = m_packet.stamp(timestampNs);
        nng_msg* message = nullptr;
        if (nng_msg_alloc(&message, bytes.size()) != 0)
            return;
        std::memcpy(nng_msg_body(message), bytes.data(), bytes.size());
        if (nng_sendmsg(m_socket, message, NNG_FLAG_NONBLOCK) != 0)
            nng_msg_free(message);
    }

private:
    Link m_link;
    PeerPacket m_packet;
    nng_socket m_socket = NNG_SOCKET_INITIALIZER;
};

class NngSubscriber : public Subscriber
{
public:
    explicit NngSubscriber(const Link& link) : m_link(link) {}

    bool start(FrameHandler handler) override
    {
        // The dial goes on in the background, as it has to when the sender is not there yet.
        if (!checkNng(nng_sub0_open(&m_socket), "nng_sub0_open") ||
            !checkNng(nng_socket_set(m_socket, NNG_OPT_SUB_SUBSCRIBE, "", 0), "subscribe") ||
            (m_link.variant == TunedVariant &&
             !checkNng(nng_socket_set_int(m_socket, NNG_OPT_RECVBUF, 1), "NNG_OPT_RECVBUF")) ||
            !checkNng(
                nng_dial(m_socket, makeUri(m_link).c_str(), nullptr, NNG_FLAG_NONBLOCK),
                "nng_dial"))
            return false;
        std::thread([this, handler = std::move(handler)] { receiveForever(handler); }).detach();
        return true;
    }

private:
    void receiveForever(const FrameHandler& handler) const
    {
        while (true)
        {
            nng_msg* message = nullptr;
            if (nng_recvmsg(m_socket, &message, 0) != 0)
                continue;
            deliverPeerPacket(handler, nng_msg_body(message), nng_msg_len(message));
            nng_msg_free(message);
        }
    }

    Link m_link;
    nng_socket m_socket = NNG_SOCKET_INITIALIZER;
};

} // namespace

std::unique_ptr<Publisher> makePublisher(const Link& link)
{
    return std::make_unique<NngPublisher>(link);
}

std::unique_ptr<Subscriber> makeSubscriber(const Link& link)
{
    return std::make_unique<NngSubscriber>(link);
}

} // namespace vlx::bench
