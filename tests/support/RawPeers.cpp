#include "support/RawPeers.hpp"

#include <array>
#include <cstring>

#include <fcntl.h>
#include <nanomsg/nn.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/LittleEndian.hpp"

namespace vlx::testing
{

namespace
{

using Clock = std::chrono::steady_clock;

/// Calls bind() or connect() with an abstract name.
template <class Call>
bool callWithName(Call call, int fd, const std::string& name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // Not by the library's function, which this checks.
    const std::size_t length = std::min(name.size(), sizeof(address.sun_path) - 1);
    std::memcpy(address.sun_path + 1, name.data(), length);
    const std::size_t size = sizeof(address.sun_family) + 1 + length;
    return call(fd, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(size)) == 0;
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

} // namespace

std::pair<Descriptor, Descriptor> makePipe()
{
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

std::pair<Descriptor, Descriptor> makeSocketPair()
{
    int ends[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

Buffer makeSidechannelMessage(const Buffer& payload)
{
    Buffer message;
    writeLittleEndian(message, 0, static_cast<std::uint32_t>(payload.size()));
    message.insert(message.end(), payload.begin(), payload.end());
    return message;
}

RawConnection::RawConnection(const std::string& name, std::chrono::milliseconds deadline)
    : m_descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    if (waitFor([&] { return callWithName(::connect, getFD(), name); }, deadline))
        ::fcntl(getFD(), F_SETFL, 0); // only a full backlog must not block
    else
        close();
}

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
    const Buffer prefix = readBytes(sizeof(std::uint32_t), deadline);
    const auto size = ByteCursor(prefix).read<std::uint32_t>();
    Buffer payload = readBytes(size.value_or(0), deadline);
    return size && payload.size() == *size ? std::optional(payload) : std::nullopt;
}

bool isReadable(int fd)
{
    return isReadableBefore(fd, Clock::now());
}

bool RawConnection::waitForClose(std::chrono::milliseconds deadline)
{
    std::uint8_t byte = 0;
    return isReadableBefore(getFD(), Clock::now() + deadline) &&
           ::recv(getFD(), &byte, sizeof(byte), 0) <= 0;
}

RawSidechannelServer::RawSidechannelServer(const std::string& name, int backlog)
    : m_listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    if (!callWithName(::bind, m_listener.get(), name) || ::listen(m_listener.get(), backlog) != 0)
        m_listener.close();
}

RawConnection RawSidechannelServer::accept(std::chrono::milliseconds deadline)
{
    if (!isReadableBefore(m_listener.get(), Clock::now() + deadline))
        return RawConnection(Descriptor());
    return RawConnection(Descriptor(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC)));
}

RawNanomsg::RawNanomsg(int protocol) : m_socket(::nn_socket(AF_SP, protocol))
{
    ::nn_setsockopt(m_socket, NN_SUB, NN_SUB_SUBSCRIBE, "", 0); // fails for the others
}

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

LingeringConnection::LingeringConnection()
{
    const Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ::listen(listener.get(), 1);
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    ::getsockname(listener.get(), generic, &size);
    m_near = Descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::connect(m_near.get(), generic, size), 0);
    m_far = Descriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));

    const linger toTheEnd{1, 30};
    ::setsockopt(m_near.get(), SOL_SOCKET, SO_LINGER, &toTheEnd, sizeof(toTheEnd));
    const Buffer bytes(100'000);
    while (::send(m_near.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0)
    {
    }
}

bool passDescriptor(int socketFD, int passedFD, int flags)
{
    char byte = 0;
    iovec data{&byte, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    *CMSG_FIRSTHDR(&message) = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
    std::memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), &passedFD, sizeof(passedFD));
    return ::sendmsg(socketFD, &message, flags | MSG_NOSIGNAL) == 1;
}

} // namespace vlx::testing
