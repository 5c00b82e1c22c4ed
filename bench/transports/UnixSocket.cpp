/// A bare Unix stream socket, the limit of the kernel: blocking calls write the packet, with its
/// size in the header, to each reader in turn. A slow reader delays the sender and all others.

#include <cerrno>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Transport.hpp"

namespace vlx::bench
{
namespace
{

constexpr int Backlog = 128;

// Makes a socket and calls bind or connect with its address.
// @return its descriptor, open as long as the process lives
int makeSocket(const Plan& plan, decltype(&connect) call)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = plan.getPath(".sock");
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const void* const generic = &address;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool ok = call(fd, static_cast<const sockaddr*>(generic), sizeof address) == 0;
    require(ok, "bind or connect", std::strerror(errno));
    return fd;
}

bool readWhole(int fd, void* data, std::size_t size)
{
    return recv(fd, data, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

void receiveUntilClosed(int fd, std::vector<std::uint8_t> packet, const FrameHandler& handler)
{
    PacketHeader header{};
    while (readWhole(fd, &header, sizeof header) && header.packetBytes >= sizeof header &&
           header.packetBytes <= packet.size() &&
           readWhole(fd, &packet[sizeof header], header.packetBytes - sizeof header))
    {
        std::memcpy(packet.data(), &header, sizeof header);
        deliverPacket(handler, packet.data(), header.packetBytes);
    }
}

struct Readers
{
    std::mutex mutex;     // guards fds
    std::vector<int> fds; // connected sockets
};

void acceptForever(int listenerFD, Readers& readers)
{
    while (true)
    {
        const int fd = accept4(listenerFD, nullptr, nullptr, SOCK_CLOEXEC);
        const std::lock_guard lock(readers.mutex);
        if (fd >= 0)
            readers.fds.push_back(fd);
    }
}

} // namespace

SendFrame openStream(const Plan& plan)
{
    static Readers readers; // as long as the thread that accepts
    const int fd = makeSocket(plan, bind);
    require(listen(fd, Backlog) == 0, "listen", std::strerror(errno));
    std::thread(acceptForever, fd, std::ref(readers)).detach();
    return [](std::uint64_t, Bytes packet)
    {
        const std::lock_guard lock(readers.mutex);
        std::erase_if(
            readers.fds,
            [packet](int reader)
            {
                const ssize_t sent = send(reader, packet.data(), packet.size(), MSG_NOSIGNAL);
                return sent != static_cast<ssize_t>(packet.size()) && close(reader) == 0;
            });
    };
}

void startReceiving(const Plan& plan, FrameHandler handler)
{
    const int fd = makeSocket(plan, connect);
    std::vector<std::uint8_t> packet(sizeof(PacketHeader) + plan.bytes);
    std::thread(receiveUntilClosed, fd, std::move(packet), std::move(handler)).detach();
}

} // namespace vlx::bench
