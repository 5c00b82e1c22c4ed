/// A bare Unix stream socket: a length and the packet, written to each reader in turn with blocking
/// calls. The limit of the kernel; a slow reader slows the sender and everybody else.

#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "PeerPacket.hpp"

namespace vlx::bench
{
namespace
{

constexpr int Backlog = 128;

sockaddr_un makeAddress(const Link& link)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = link.directory + "/" + link.name + ".sock";
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

const sockaddr* asGeneric(const sockaddr_un& address)
{
    return static_cast<const sockaddr*>(static_cast<const void*>(&address));
}

bool checkSystem(bool ok, const char* call)
{
    return check(ok, call, std::strerror(errno));
}

// Sends all of both parts. A full socket blocks; parts of a message are finished by plain sends.
bool writeWhole(int fd, std::uint32_t length, std::span<const std::uint8_t> bytes)
{
    iovec parts[2] = {
        {&length, sizeof length}, {const_cast<std::uint8_t*>(bytes.data()), bytes.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t written = sendmsg(fd, &message, MSG_NOSIGNAL);
    if (written < static_cast<ssize_t>(sizeof length))
        return false;
    std::size_t done = static_cast<std::size_t>(written) - sizeof length;
    while (done < bytes.size())
    {
        const ssize_t more = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (more <= 0)
            return false;
        done += static_cast<std::size_t>(more);
    }
    return true;
}

class UnixPublisher : public Publisher
{
public:
    explicit UnixPublisher(const Link& link) : m_link(link), m_packet(link.mediaBytes) {}

    bool open() override
    {
        m_listenerFD = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = makeAddress(m_link);
        if (!checkSystem(m_listenerFD >= 0, "socket") ||
            !checkSystem(bind(m_listenerFD, asGeneric(address), sizeof address) == 0, "bind") ||
            !checkSystem(listen(m_listenerFD, Backlog) == 0, "listen"))
            return false;
        std::thread([this] { acceptForever(); }).detach();
        return true;
    }

    std::span<std::uint8_t> media() override
    {
        return m_packet.media();
    }

    void send(std::uint64_t timestampNs) override
    {
        const auto bytes = m_packet.stamp(timestampNs);
        const std::lock_guard lock(m_mutex);
        std::erase_if(
            m_readers,
            [&](int fd)
            {
                if (writeWhole(fd, static_cast<std::uint32_t>(bytes.size()), bytes))
                    return false;
                close(fd);
                return true;
            });
    }

private:
    void acceptForever()
    {
        while (true)
        {
            const int fd = accept4(m_listenerFD, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0)
                continue;
            const std::lock_guard lock(m_mutex);
            m_readers.push_back(fd);
        }
    }

    Link m_link;
    PeerPacket m_packet;
    int m_listenerFD = -1;
    std::mutex m_mutex;         // guards m_readers
    std::vector<int> m_readers; // connected sockets
};

class UnixSubscriber : public Subscriber
{
public:
    explicit UnixSubscriber(const Link& link)
        : m_link(link), m_buffer(PeerHeaderBytes + link.mediaBytes)
    {
    }

    bool start(FrameHandler handler) override
    {
        m_socketFD = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = makeAddress(m_link);
        if (!checkSystem(m_socketFD >= 0, "socket") ||
            !checkSystem(connect(m_socketFD, asGeneric(address), sizeof address) == 0, "connect"))
            return false;
        std::thread([this, handler = std::move(handler)] { receiveUntilClosed(handler); }).detach();
        return true;
    }

private:
    bool readWhole(void* data, std::size_t size) const
    {
        return recv(m_socketFD, data, size, MSG_WAITALL) == static_cast<ssize_t>(size);
    }

    void receiveUntilClosed(const FrameHandler& handler)
    {
        std::uint32_t size = 0;
        while (readWhole(&size, sizeof size) && size <= m_buffer.size() &&
               readWhole(m_buffer.data(), size))
            deliverPeerPacket(handler, m_buffer.data(), size);
    }

    Link m_link;
    int m_socketFD = -1;
    std::vector<std::uint8_t> m_buffer;
};

} // namespace

std::unique_ptr<Publisher> makePublisher(const Link& link)
{
    return std::make_unique<UnixPublisher>(link);
}

std::unique_ptr<Subscriber> makeSubscriber(const Link& link)
{
    return std::make_unique<UnixSubscriber>(link);
}

} // namespace vlx::bench
