#include "ClockProvider.hpp"

#include <array>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <system_error>

#include <gst/gst.h>
#include <gst/net/gstnet.h>
#include <linux/filter.h>
#include <linux/sock_diag.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ExitCodes.hpp"
#include "Numbers.hpp"

namespace vlx::tool
{

namespace
{

// A question as GStreamer's clocks ask it: two times.
constexpr std::uint32_t QuestionSize = 16;
constexpr std::uint32_t UdpHeaderSize = 8;

/// GStreamer's provider shares its port with others, and then each gets some of the questions.
bool isServed(const std::string& address, std::uint16_t port)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* list = nullptr;
    if (::getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &list) != 0)
        return false;
    const int fd = ::socket(list->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool served =
        fd >= 0 && ::bind(fd, list->ai_addr, list->ai_addrlen) != 0 && errno == EADDRINUSE;
    ::freeaddrinfo(list);
    if (fd >= 0)
        ::close(fd);
    return served;
}

/// @return the UDP socket of this process on a port, which GStreamer does not expose; -1 without
///         one
int findSocket(std::uint16_t port)
{
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error))
    {
        const int fd = static_cast<int>(parseNumber(entry.path().filename().string()).value_or(0));
        sockaddr_storage address{};
        socklen_t length = sizeof(address);
        int type = 0;
        socklen_t typeLength = sizeof(type);
        if (::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &typeLength) != 0 || type != SOCK_DGRAM ||
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            continue;
        // The port stands in the same place for both families.
        if ((address.ss_family == AF_INET || address.ss_family == AF_INET6) &&
            reinterpret_cast<const sockaddr_in*>(&address)->sin_port == htons(port))
            return fd;
    }
    return -1;
}

/// Has the kernel drop what has not the size of a question: GStreamer's provider pauses for 100 ms
/// after each such packet.
void dropJunk(int socketFD)
{
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_LEN, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, UdpHeaderSize + QuestionSize, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, UdpHeaderSize + QuestionSize), BPF_STMT(BPF_RET | BPF_K, 0)};
    const sock_fprog program{static_cast<unsigned short>(std::size(code)), code};
    ::setsockopt(socketFD, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program));
}

} // unnamed namespace

ClockProvider::ClockProvider(const std::string& address, std::uint16_t port) : m_port(port)
{
    // GLib reads past the end of an address that is not valid UTF-8.
    if (g_utf8_validate(address.c_str(), -1, nullptr) == FALSE)
        throw CommandFailure(ExitCode::Failed, "the clock's address is not valid UTF-8");
    if (port != 0 && isServed(address, port))
        throw CommandFailure(
            ExitCode::Failed, "cannot serve a clock at " + address + " port " +
                                  std::to_string(port) + ": the port is in use");
    ::gst_init(nullptr, nullptr);
    // One of its own: the process's shared clock could have been changed by others.
    auto* const clock = static_cast<GstClock*>(
        ::gst_object_ref_sink(::g_object_new(GST_TYPE_SYSTEM_CLOCK, nullptr)));
    auto* const provider = ::gst_net_time_provider_new(clock, address.c_str(), port);
    ::gst_object_unref(clock);
    if (provider == nullptr)
        throw CommandFailure(
            ExitCode::Failed, "cannot serve a clock at " + address + " port " +
                                  std::to_string(port) +
                                  ": it needs a numeric address of this machine, and a free port");
    m_provider.reset(provider, ::gst_object_unref);
    gint boundPort = 0;
    ::g_object_get(provider, "port", &boundPort, nullptr);
    m_port = static_cast<std::uint16_t>(boundPort);
    m_socketFD = findSocket(m_port);
    dropJunk(m_socketFD);
}

std::uint32_t ClockProvider::getNumDropped() const
{
    std::array<std::uint32_t, SK_MEMINFO_VARS> info{};
    socklen_t length = sizeof(info);
    ::getsockopt(m_socketFD, SOL_SOCKET, SO_MEMINFO, info.data(), &length);
    return info[SK_MEMINFO_DROPS];
}

} // namespace vlx::tool
