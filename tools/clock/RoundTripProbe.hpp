#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vlx::tool
{

class StopSignal;

/// Asks a network clock's provider for its time and measures how long the answer takes.
class RoundTripProbe
{
public:
    /// Looks up the address.
    RoundTripProbe(const std::string& address, std::uint16_t port);
    ~RoundTripProbe();

    RoundTripProbe(const RoundTripProbe&) = delete;
    RoundTripProbe& operator=(const RoundTripProbe&) = delete;

    /// Asks once.
    ///
    /// @return nanoseconds; nothing without an answer in time, or if there is a stop
    std::optional<std::int64_t> measure(const StopSignal& stop);

private:
    int m_socketFD = -1;
};

} // namespace vlx::tool
