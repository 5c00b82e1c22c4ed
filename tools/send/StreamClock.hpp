#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <miscUtils/SyncedNetClock.hpp>
#include <vlx/SideChannel.hpp>
#include <vlx/VlxTypes.hpp>

namespace vlx::tool
{

class StopSignal;

/// The clock that a sender stamps its frames by, and what it announces about it.
class StreamClock
{
public:
    /// @param address  of a network clock; empty: the system's monotonic clock
    /// @param port     of the network clock
    StreamClock(std::string address, std::uint16_t port);

    /// Waits until the clock can be read.
    ///
    /// @param timeout  unset: for ever
    /// @return whether it can; otherwise a stop was asked for
    /// @throws CommandFailure if the time-out has passed
    bool waitUntilReady(const std::optional<std::chrono::nanoseconds>& timeout, StopSignal& stop);

    /// @return nanoseconds
    TimeValue getTime() const;

    TimeSyncProtocol getProtocol() const
    {
        return m_port == 0 ? TimeSyncProtocol::MonotonicSystemClock : TimeSyncProtocol::GstNetClock;
    }

    const std::string& getAddress() const
    {
        return m_address;
    }

    std::uint16_t getPort() const
    {
        return m_port;
    }

private:
    const std::string m_address;
    const std::uint16_t m_port;
    miscUtils::SyncedNetClock m_netClock;
};

} // namespace vlx::tool
