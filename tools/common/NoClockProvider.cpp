#include "ClockProvider.hpp"
#include "ExitCodes.hpp"

namespace vlx::tool
{

ClockProvider::ClockProvider(const std::string& /*address*/, std::uint16_t port) : m_port(port)
{
    throw CommandFailure(ExitCode::Failed, "this vlx is built without network clocks");
}

std::uint32_t ClockProvider::getNumDropped() const
{
    return 0;
}

} // namespace vlx::tool
