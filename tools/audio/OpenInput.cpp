#include <utility>

#include "AudioInput.hpp"
#include "AudioOutput.hpp"
#include "ByteSource.hpp"
#include "common/ExitCodes.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

/// Raw samples, which are passed on unchanged.
class RawInput : public AudioInput
{
public:
    /// @param refuseFiles  the first read fails if the bytes begin as an audio file does
    RawInput(std::unique_ptr<ByteSource> source, const kit::StreamFormat& format, bool refuseFiles)
        : m_source(std::move(source)), m_refuseFiles(refuseFiles)
    {
        m_format = format;
        m_isLive = !m_source->isFile();
        if (m_source->isFile())
            m_length = m_source->getSize() / m_format.getBytesPerSample();
    }

    std::size_t read(Buffer& bytes, std::size_t numSamples) override
    {
        if (!std::exchange(m_begun, true) && !isFit())
            return 0;
        bytes.resize(numSamples * m_format.getBytesPerSample());
        const std::size_t filled = m_source->read(bytes.data(), bytes.size());
        return keepWholeSamples(bytes, filled);
    }

    bool rewind() override
    {
        return m_source->rewind();
    }

private:
    /// @return whether there is anything, and nothing else than samples
    bool isFit()
    {
        const std::string kind = m_source->peekFileKind();
        if (m_source->peek(0).empty() && isAtEnd())
            m_problem = m_source->getName() + " is empty";
        else if (m_refuseFiles && !kind.empty())
            m_problem = m_source->getName() + " is a " + kind +
                        " file: leave out -f, -r and -c, or say --raw to send its bytes as samples";
        return m_problem.empty();
    }

    std::size_t keepWholeSamples(Buffer& bytes, std::size_t filled)
    {
        const std::size_t sampleBytes = m_format.getBytesPerSample();
        const std::size_t rest = filled % sampleBytes;
        if (m_problem.empty())
            m_problem = m_source->getProblem();
        if (rest != 0 && isAtEnd())
            m_problem = m_source->getName() + " ends inside a sample: " + std::to_string(rest) +
                        " of " + std::to_string(sampleBytes) + " bytes";
        bytes.resize(filled - rest);
        return filled / sampleBytes;
    }

    /// @return whether a read that gave less than was wanted has come to the end
    bool isAtEnd() const
    {
        return m_source->getProblem().empty() && !m_source->wasStopped();
    }

    const std::unique_ptr<ByteSource> m_source;
    const bool m_refuseFiles;
    bool m_begun = false;
};

} // unnamed namespace

std::unique_ptr<AudioInput> openInput(
    const std::string& path,
    const InputSettings& settings,
    const StopSignal& stop,
    const Deadline& deadline)
{
    auto source = std::make_unique<ByteSource>(path, stop, deadline);
    const bool isStream = path == "-" || !source->isFile();
    const bool isRaw = settings.raw || isRawPath(path);
    if (source->wasStopped())
        return nullptr;
    // Who says the format of a stream need not wait for the first bytes to open it.
    if (isRaw || (isStream && settings.formatGiven))
        return std::make_unique<RawInput>(std::move(source), settings.format, !isRaw);
    if (settings.formatGiven)
        throw CommandFailure(
            ExitCode::Usage, "-f, -r and -c are for raw input only: add --raw, or leave them out");
    if (!isStream)
        return openSoundInput(std::move(source), path);

    const std::string kind = source->peekFileKind(deadline);
    if (source->wasStopped())
        return nullptr;
    if (kind.empty())
        return std::make_unique<RawInput>(std::move(source), settings.format, false);
    if (kind != "WAV")
        throw CommandFailure(
            ExitCode::Failed, source->getName() + " is a " + kind +
                                  " file, which is not read from there: name the file, pipe it as "
                                  "WAV, or say --raw to send its bytes as samples");
    try
    {
        return openSoundInput(std::move(source), path);
    }
    catch (const CommandFailure&)
    {
        if (!stop.isRequested())
            throw;
        return nullptr; // the stop cut its header
    }
}

} // namespace vlx::tool
