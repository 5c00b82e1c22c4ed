#include "StreamClock.hpp"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "common/Duration.hpp"
#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/NetClock.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

using SteadyClock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

constexpr auto CheckInterval = std::chrono::milliseconds(10);
constexpr auto UsualSyncTime = std::chrono::seconds(1);

// A clock that is off by more has been set anew. Far more than a refined estimate differs by.
constexpr std::int64_t JumpNs = 20'000'000;
// How fast the estimate is taken over: ten times what a bad crystal drifts.
constexpr std::int64_t SlopeDivisor = 200;

std::int64_t toNs(SteadyClock::time_point time)
{
    return std::chrono::duration_cast<nanoseconds>(time.time_since_epoch()).count();
}

} // unnamed namespace

StreamClock::StreamClock(ClockChoice choice, std::string address, std::uint16_t port)
    : m_choice(choice), m_address(std::move(address)), m_port(port)
{
    if (m_choice == ClockChoice::Served)
        m_provider.emplace(m_address, m_port);
}

bool StreamClock::waitUntilReady(const OptionalDuration& timeout, const StopSignal& stop)
{
    if (m_choice != ClockChoice::External)
        return !stop.isRequested();

    const std::string name =
        "the network clock at " + m_address + " port " + std::to_string(m_port);
    const auto start = SteadyClock::now();
    bool told = false;
    follow(m_netClock, m_address, m_port);
    while (!m_netClock.isSynchronized() || !adoptOffset(measureOffset(m_netClock)))
    {
        const auto now = SteadyClock::now();
        if (timeout && now - start >= *timeout)
            throw CommandFailure(
                ExitCode::TimedOut, name + " did not synchronise within " + toText(*timeout));
        if (!told && now - start >= UsualSyncTime)
        {
            told = true;
            printNotice(name + " does not answer yet: waiting for it");
        }
        if (stop.waitUntil(now + CheckInterval))
            return false;
    }
    return !stop.isRequested();
}

bool StreamClock::update()
{
    if (m_choice != ClockChoice::External)
        return false;
    const auto offset = measureOffset(m_netClock);
    if (!offset)
        return false; // not synchronised now: the last estimate holds
    const std::int64_t error = *offset - m_offset;
    if (std::abs(error) > JumpNs)
        return adoptOffset(offset);

    const auto now = SteadyClock::now();
    const std::int64_t limit = (now - m_lastUpdate).count() / SlopeDivisor;
    m_offset += std::clamp(error, -limit, limit);
    m_lastUpdate = now;
    return false;
}

bool StreamClock::adoptOffset(const std::optional<std::int64_t>& offset)
{
    if (!offset)
        return false;
    m_offset = *offset;
    m_lastUpdate = SteadyClock::now();
    return true;
}

TimeValue StreamClock::toStreamTime(SteadyTime local) const
{
    return static_cast<TimeValue>(toNs(local) + m_offset);
}

StreamClock::SteadyTime StreamClock::toLocalTime(TimeValue streamTime) const
{
    return SteadyTime(nanoseconds(static_cast<std::int64_t>(streamTime) - m_offset));
}

} // namespace vlx::tool
