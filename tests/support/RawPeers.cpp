#include "support/RawPeers.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include <nanomsg/nn.h>
#include <nanomsg/pipeline.h>
#include <nanomsg/pubsub.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace vlx::testing
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int Backlog = 32;

/// @return the address and its length; the name's bytes without a terminating 0
std::pair<sockaddr_un, socklen_t> makeAbstractAddress(const std::string& name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::size_t length = std::min(name.size(), sizeof(address.sun_path) - 1);
    std::memcpy(address.sun_path + 1, name.data(), length);
    return {address, static_cast<socklen_t>(sizeof(address.sun_family) + 1 + length)};
}

int getMillisecondsUntil(Clock::time_point end)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

bool isReadableBefore(int fd, Clock::time_point end)
{
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, getMillisecondsUntil(end)) > 0;
}

Descriptor connectTo(const std::string& name, std::chrono::milliseconds deadline)
{
    const auto [address, length] = makeAbstractAddress(name);
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    Descriptor descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const bool connected = waitFor(
        [&descriptor, generic, size = length]
        { return ::connect(descriptor.get(), generic, size) == 0; },
        deadline);
    if (!connected)
        descriptor.close();
    return descriptor;
}

Descriptor listenOn(const std::string& name)
{
    const auto [address, length] = makeAbstractAddress(name);
    Descriptor descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::bind(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        ::listen(descriptor.get(), Backlog) != 0)
    {
        descriptor.close();
    }
    return descriptor;
}

} // namespace

Descriptor::Descriptor(int fd) : m_fd(fd) {}

Descriptor::~Descriptor()
{
    close();
}

Descriptor::Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept
{
    std::swap(m_fd, other.m_fd);
    return *this;
}

void Descriptor::close()
{
    if (m_fd >= 0)
        ::close(std::exchange(m_fd, -1));
}

Buffer makeSidechannelMessage(const Buffer& payload)
{
    const auto size = static_cast<std::uint32_t>(payload.size());
    Buffer message(sizeof(size) + payload.size());
    std::memcpy(message.data(), &size, sizeof(size));
    std::copy(payload.begin(), payload.end(), message.begin() + sizeof(size));
    return message;
}

RawConnection::RawConnection(Descriptor descriptor) : m_descriptor(std::move(descriptor)) {}

bool RawConnection::send(const Buffer& bytes, std::size_t sliceSize)
{
    std::size_t sent = 0;
    while (sent < bytes.size())
    {
        const std::size_t left = bytes.size() - sent;
        const std::size_t slice = sliceSize == 0 ? left : std::min(sliceSize, left);
        const ssize_t result = ::send(getFD(), bytes.data() + sent, slice, MSG_NOSIGNAL);
        if (result <= 0)
            return false;
        sent += static_cast<std::size_t>(result);
    }
    return true;
}

Buffer RawConnection::readBytes(std::size_t size, std::chrono::milliseconds deadline)
{
    const Clock::time_point end = Clock::now() + deadline;
    Buffer bytes(size);
    std::size_t filled = 0;
    while (filled < size && isReadableBefore(getFD(), end))
    {
        const ssize_t result = ::recv(getFD(), bytes.data() + filled, size - filled, 0);
        if (result <= 0)
            break;
        filled += static_cast<std::size_t>(result);
    }
    bytes.resize(filled);
    return bytes;
}

std::optional<Buffer> RawConnection::readMessage(std::chrono::milliseconds deadline)
{
    std::uint32_t size = 0;
    const Buffer prefix = readBytes(sizeof(size), deadline);
    if (prefix.size() != sizeof(size))
        return std::nullopt;
    std::memcpy(&size, prefix.data(), sizeof(size));

    Buffer payload = readBytes(size, deadline);
    if (payload.size() != size)
        return std::nullopt;
    return payload;
}

bool RawConnection::hasInput() const
{
    return isReadableBefore(getFD(), Clock::now());
}

bool RawConnection::waitForClose(std::chrono::milliseconds deadline)
{
    std::uint8_t byte = 0;
    return isReadableBefore(getFD(), Clock::now() + deadline) &&
           ::recv(getFD(), &byte, sizeof(byte), 0) <= 0;
}

void RawConnection::close()
{
    m_descriptor.close();
}

RawSidechannelClient::RawSidechannelClient(
    const std::string& name,
    std::chrono::milliseconds deadline)
    : RawConnection(connectTo(name, deadline))
{
}

RawSidechannelServer::RawSidechannelServer(const std::string& name) : m_listener(listenOn(name)) {}

RawConnection RawSidechannelServer::accept(std::chrono::milliseconds deadline)
{
    if (!isReadableBefore(m_listener.get(), Clock::now() + deadline))
        return RawConnection(Descriptor());
    return RawConnection(Descriptor(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC)));
}

void RawSidechannelServer::close()
{
    m_listener.close();
}

RawNanomsg::RawNanomsg(int protocol) : m_socket(::nn_socket(AF_SP, protocol)) {}

RawNanomsg::~RawNanomsg()
{
    close();
}

bool RawNanomsg::bind(const std::string& uri)
{
    return ::nn_bind(m_socket, uri.c_str()) >= 0;
}

bool RawNanomsg::connect(const std::string& uri)
{
    return ::nn_connect(m_socket, uri.c_str()) >= 0;
}

std::optional<Buffer> RawNanomsg::receive(std::chrono::milliseconds deadline)
{
    const int timeoutMs = static_cast<int>(deadline.count());
    ::nn_setsockopt(m_socket, NN_SOL_SOCKET, NN_RCVTIMEO, &timeoutMs, sizeof(timeoutMs));

    void* message = nullptr;
    const int size = ::nn_recv(m_socket, &message, NN_MSG, 0);
    if (size < 0)
        return std::nullopt;
    const auto* const bytes = static_cast<const std::uint8_t*>(message);
    Buffer copy(bytes, bytes + size);
    ::nn_freemsg(message);
    return copy;
}

bool RawNanomsg::send(const Buffer& message, std::chrono::milliseconds deadline)
{
    const int timeoutMs = static_cast<int>(deadline.count());
    ::nn_setsockopt(m_socket, NN_SOL_SOCKET, NN_SNDTIMEO, &timeoutMs, sizeof(timeoutMs));
    return ::nn_send(m_socket, message.data(), message.size(), 0) ==
           static_cast<int>(message.size());
}

bool RawNanomsg::waitForPeers(std::size_t number)
{
    return waitFor([this, number]
                   { return ::nn_get_statistic(m_socket, NN_STAT_CURRENT_CONNECTIONS) == number; });
}

void RawNanomsg::close()
{
    if (m_socket >= 0)
        ::nn_close(std::exchange(m_socket, -1));
}

RawNanomsgSub::RawNanomsgSub() : RawNanomsg(NN_SUB)
{
    ::nn_setsockopt(getSocket(), NN_SUB, NN_SUB_SUBSCRIBE, "", 0);
}

RawNanomsgPub::RawNanomsgPub() : RawNanomsg(NN_PUB) {}

RawNanomsgPull::RawNanomsgPull() : RawNanomsg(NN_PULL) {}

RawNanomsgPush::RawNanomsgPush() : RawNanomsg(NN_PUSH) {}

} // namespace vlx::testing
