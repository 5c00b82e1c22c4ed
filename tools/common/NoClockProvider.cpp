#include "ClockProvider.hpp"
#include "ExitCodes.hpp"

namespace vlx::tool
{

ClockProvider::ClockProvider(const std::string& /*address*/, std::uint16_t port) : m_port(port)
{
    throw CommandFailure(
        ExitCode::Failed, "network clocks are not available: vlx was built without GStreamer");
}

std::uint32_t ClockProvider::getNumDropped() const
{
    return 0;
}

} // namespace vlx::tool
