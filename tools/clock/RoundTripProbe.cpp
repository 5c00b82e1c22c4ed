#include "RoundTripProbe.hpp"

#include <array>
#include <chrono>
#include <string>

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/Poll.hpp"

namespace vlx::tool
{

namespace
{

using SteadyClock = std::chrono::steady_clock;

// Slower answers are useless to clocks that follow.
constexpr auto AnswerTimeout = std::chrono::milliseconds(175);

// The asker's time, which comes back as it is, and the provider's.
using Packet = std::array<std::int64_t, 2>;

} // unnamed namespace

RoundTripProbe::RoundTripProbe(const std::string& address, std::uint16_t port)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    for (const int family : {AF_INET, AF_UNSPEC}) // as the clock prefers them
    {
        hints.ai_family = family;
        addrinfo* list = nullptr;
        if (::getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &list) != 0)
            continue;
        m_socketFD = ::socket(list->ai_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (m_socketFD >= 0)
            static_cast<void>(::connect(m_socketFD, list->ai_addr, list->ai_addrlen));
        ::freeaddrinfo(list);
        return;
    }
}

RoundTripProbe::~RoundTripProbe()
{
    if (m_socketFD >= 0)
        ::close(m_socketFD);
}

std::optional<std::int64_t> RoundTripProbe::measure(const StopSignal& stop)
{
    const auto begin = SteadyClock::now();
    const Packet request{begin.time_since_epoch().count(), 0};
    if (m_socketFD < 0 || ::send(m_socketFD, &request, sizeof(request), 0) < 0)
        return std::nullopt;
    while (waitForEvents(m_socketFD, POLLIN, stop, begin + AnswerTimeout) == PollResult::Ready)
    {
        const auto end = SteadyClock::now();
        Packet answer{};
        const ssize_t count = ::recv(m_socketFD, &answer, sizeof(answer), 0);
        if (count < 0)
            return std::nullopt;
        if (count == sizeof(answer) && answer[0] == request[0]) // not a late one
            return std::chrono::nanoseconds(end - begin).count();
    }
    return std::nullopt;
}

} // namespace vlx::tool
