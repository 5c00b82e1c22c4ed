#include "ClockProvider.hpp"
#include "ExitCodes.hpp"

namespace vlx::tool
{

ClockProvider::ClockProvider(const std::string& /*address*/, std::uint16_t port) : m_port(port)
{
    throw CommandFailure(ExitCode::Failed, "this vlx is built without network clocks");
}

} // namespace vlx::tool
