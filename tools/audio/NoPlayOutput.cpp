#include "AudioOutput.hpp"
#include "common/ExitCodes.hpp"

namespace vlx::tool
{

std::unique_ptr<AudioOutput> openPlayOutput(
    const std::string& /*device*/,
    std::chrono::nanoseconds /*latency*/,
    const StopSignal& /*stop*/)
{
    throw CommandFailure(
        ExitCode::Failed, "--play is not available: vlx was built without ALSA or libsamplerate");
}

} // namespace vlx::tool
