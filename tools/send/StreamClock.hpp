#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <miscUtils/SyncedNetClock.hpp>
#include <vlx/SideChannel.hpp>
#include <vlx/VlxTypes.hpp>

#include "common/ClockProvider.hpp"
#include "common/CommonOptions.hpp"

namespace vlx::tool
{

class StopSignal;

/// Which clock a stream's timestamps stand on.
enum class ClockChoice
{
    /// The machine's monotonic clock, that every process reads.
    System,
    /// The machine's monotonic clock, served to receivers over the network.
    Served,
    /// A network clock that another program serves.
    External,
};

/// The clock that a sender stamps its frames by, and what it announces about it.
///
/// The estimate of an external clock moves in steps as it is refined. This clock follows it
/// smoothly; only a jump is followed at once.
class StreamClock
{
public:
    using SteadyTime = std::chrono::steady_clock::time_point;

    /// @param address  where it is, or is served
    /// @param port     UDP port; 0 when served: any
    /// @throws CommandFailure if it cannot be served
    StreamClock(ClockChoice choice, std::string address, std::uint16_t port);

    /// Waits until the clock can be read.
    ///
    /// @param timeout  unset: for ever
    /// @return whether it can; otherwise a stop was asked for
    /// @throws CommandFailure at the timeout
    bool waitUntilReady(const OptionalDuration& timeout, const StopSignal& stop);

    /// Takes a new look at the clock: to be called often.
    ///
    /// @return whether it has jumped: earlier results of toLocalTime() are invalid
    bool update();

    /// @return nanoseconds of the stream's clock
    TimeValue toStreamTime(SteadyTime local) const;

    /// @return when the stream's clock shows a time
    SteadyTime toLocalTime(TimeValue streamTime) const;

    TimeSyncProtocol getProtocol() const
    {
        return m_choice == ClockChoice::System ? TimeSyncProtocol::MonotonicSystemClock
                                               : TimeSyncProtocol::GstNetClock;
    }

    const std::string& getAddress() const
    {
        return m_address;
    }

    std::uint16_t getPort() const
    {
        return m_provider ? m_provider->getPort() : m_port;
    }

private:
    bool adoptOffset(const std::optional<std::int64_t>& offset);

    const ClockChoice m_choice;
    const std::string m_address;
    const std::uint16_t m_port;
    std::optional<ClockProvider> m_provider; // of a served clock
    miscUtils::SyncedNetClock m_netClock;    // follows an external one
    std::int64_t m_offset = 0;               // of the stream's clock to the steady one, ns
    SteadyTime m_lastUpdate;
};

} // namespace vlx::tool
