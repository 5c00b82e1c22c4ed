#include "StreamClock.hpp"

#include <utility>

#include <miscUtils/MiscUtils.hpp>

#include "common/Duration.hpp"
#include "common/ExitCodes.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

// As receivers synchronise.
constexpr unsigned WindowSize = 100;
constexpr unsigned long RoundTripLimitNs = 175'000'000;

constexpr auto CheckInterval = std::chrono::milliseconds(10);

} // unnamed namespace

StreamClock::StreamClock(std::string address, std::uint16_t port)
    : m_address(std::move(address)), m_port(port)
{
}

bool StreamClock::waitUntilReady(
    const std::optional<std::chrono::nanoseconds>& timeout,
    StopSignal& stop)
{
    if (m_port == 0)
        return !stop.isRequested();

    const auto start = std::chrono::steady_clock::now();
    m_netClock.startSynchronization(m_address, m_port, WindowSize, RoundTripLimitNs, nullptr);
    while (!m_netClock.isSynchronized() || m_netClock.getSynchronizedTime() == 0)
    {
        const auto now = std::chrono::steady_clock::now();
        if (timeout && now - start >= *timeout)
            throw CommandFailure(
                ExitCode::TimedOut, "the network clock at " + m_address + " port " +
                                        std::to_string(m_port) + " could not be followed within " +
                                        toText(*timeout));
        if (stop.waitUntil(now + CheckInterval))
            return false;
    }
    return true;
}

TimeValue StreamClock::getTime() const
{
    return m_port == 0 ? miscUtils::getMonotonicSysclockTime() : m_netClock.getSynchronizedTime();
}

} // namespace vlx::tool
