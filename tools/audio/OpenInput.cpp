#include <cerrno>

#include <sys/stat.h>

#include "AudioInput.hpp"
#include "AudioOutput.hpp"
#include "ByteSource.hpp"
#include "FileKind.hpp"
#include "common/ExitCodes.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

bool isRegularOrMissing(const std::string& path)
{
    struct stat status
    {
    };
    return ::stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode);
}

std::unique_ptr<AudioInput> openWav(std::unique_ptr<ByteSource> source, const StopSignal& stop)
{
    try
    {
        return openPipedInput(std::move(source));
    }
    catch (const CommandFailure&)
    {
        if (!stop.isRequested())
            throw;
        return nullptr; // the stop cut its header
    }
}

/// Opens a FIFO or standard input.
std::unique_ptr<AudioInput> openStream(
    const std::string& path,
    const InputSettings& settings,
    const StopSignal& stop,
    const Deadline& deadline)
{
    auto source = std::make_unique<ByteSource>(path, stop, deadline);
    if (source->wasStopped())
        return nullptr;
    if (settings.raw || isRawPath(path))
        return makeRawInput(std::move(source), settings.format, false);
    // Who says the format need not wait for the first bytes to open the stream.
    if (settings.formatGiven)
        return makeRawInput(std::move(source), settings.format, true);

    const std::string kind = getFileKind(peekFileBegin(*source, deadline));
    if (source->wasStopped())
        return nullptr;
    if (kind.empty())
        return makeRawInput(std::move(source), settings.format, false);
    if (kind == "WAV")
        return openWav(std::move(source), stop);
    throw CommandFailure(
        ExitCode::Failed, source->getName() + " is a " + kind +
                              " file, which is not read from there: name the file, pipe it as WAV, "
                              "or say --raw to send its bytes as samples");
}

} // unnamed namespace

std::unique_ptr<AudioInput> openInput(
    const std::string& path,
    const InputSettings& settings,
    const StopSignal& stop,
    const Deadline& deadline)
{
    if (path == "-" || !isRegularOrMissing(path))
        return openStream(path, settings, stop, deadline);
    if (settings.raw || isRawPath(path))
        return makeRawInput(
            std::make_unique<ByteSource>(path, stop, deadline), settings.format, false);
    if (settings.formatGiven)
        throw CommandFailure(
            ExitCode::Usage, "-f, -r and -c are for raw input only: add --raw, or leave them out");
    return openFileInput(path);
}

} // namespace vlx::tool
