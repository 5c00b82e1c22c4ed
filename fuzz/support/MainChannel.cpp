#include "MainChannel.hpp"

#include <cerrno>
#include <utility>

#include <nanomsg/nn.h>
#include <nanomsg/pipeline.h>

#include "Check.hpp"

namespace vlx::fuzz
{

namespace
{

constexpr const char* ChannelUri = "inproc://main-channel";

} // unnamed namespace

MainChannel::MainChannel(ReceiverTestAccess& worker)
    : m_worker(worker), m_socketFD(::nn_socket(AF_SP, NN_PUSH))
{
    InitialInfo info{};
    info.nanomsgProtocol = NanomsgProtocol::Pipeline;
    info.nanomsgURI = ChannelUri;
    check(
        m_worker.connectMainChannel(info) == ReceiverTestAccess::ConnectionRetval::Success,
        "the receiver opens its end");
    check(::nn_connect(m_socketFD, ChannelUri) >= 0, "the sender's end connects");
}

MainChannel::~MainChannel()
{
    ::nn_close(m_socketFD);
    m_worker.disconnectMainChannel();
}

void MainChannel::send(const ByteView& packet)
{
    const int numBytes = ::nn_send(m_socketFD, packet.data(), packet.size(), NN_DONTWAIT);
    if (numBytes >= 0)
        m_packets.emplace_back(packet.begin(), packet.end());
    else
        check(errno == EAGAIN, "a packet is sent or there is no room for it");
}

Buffer MainChannel::takePacket()
{
    Buffer packet = std::move(m_packets.front());
    m_packets.pop_front();
    return packet;
}

void MainChannel::drain()
{
    m_packets.clear();
    void* message = nullptr;
    while (::nn_recv(
               m_worker.getMainChannel(), static_cast<void*>(&message), NN_MSG, NN_DONTWAIT) >= 0)
        ::nn_freemsg(message);
}

} // namespace vlx::fuzz
