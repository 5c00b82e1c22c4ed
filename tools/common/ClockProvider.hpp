#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace vlx::tool
{

/// Serves this machine's monotonic clock over the network: a net time provider of GStreamer.
///
/// The first one in a process initialises GStreamer, which can take 0.4 s and forks a short-lived
/// helper process.
class ClockProvider
{
public:
    /// Begins to answer.
    ///
    /// @param address  numeric IP address that it is asked at
    /// @param port     UDP port; 0: any that is free
    /// @throws CommandFailure if it cannot have them, or another process serves the port
    ClockProvider(const std::string& address, std::uint16_t port);

    /// @return UDP port that it is asked at
    std::uint16_t getPort() const
    {
        return m_port;
    }

    /// @return packets that were dropped so far: junk, and questions beyond what can be answered
    std::uint32_t getNumDropped() const;

private:
    std::shared_ptr<void> m_provider;
    std::uint16_t m_port;
    int m_socketFD = -1; // the provider's own
};

} // namespace vlx::tool
