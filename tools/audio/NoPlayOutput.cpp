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
        ExitCode::Failed,
        "--play is not built in: ALSA or libsamplerate was missing when this program was built");
}

} // namespace vlx::tool
