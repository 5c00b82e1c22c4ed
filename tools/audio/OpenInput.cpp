#include <algorithm>
#include <utility>

#include "AudioInput.hpp"
#include "AudioOutput.hpp"
#include "ByteSource.hpp"
#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

/// Samples that are passed on as they stand in a file or come through a pipe.
class SampleInput : public AudioInput
{
public:
    /// @param samples      where they lie; WAV files say so
    /// @param refuseFiles  the first read fails if the bytes begin as an audio file does
    SampleInput(std::unique_ptr<ByteSource> source, const WavSamples& samples, bool refuseFiles)
        : m_source(std::move(source)), m_samples(samples), m_refuseFiles(refuseFiles)
    {
        m_format = samples.format;
        m_isLive = !m_source->isFile();
        m_bytesLeft = samples.bytes;
        const std::size_t sampleBytes = m_format.getBytesPerSample();
        m_source->setReadAhead(m_format.rate / ReadAheadPerSecond * sampleBytes);
        // In a pipe the header was only looked at.
        Buffer header(samples.place);
        m_source->read(header.data(), header.size());
        if (m_isLive)
            return;
        const std::size_t size = m_source->getSize();
        const std::uint64_t present = size - std::min<std::uint64_t>(size, samples.place);
        m_length = std::min(present, samples.bytes.value_or(present)) / sampleBytes;
    }

    std::size_t read(Buffer& bytes, std::size_t numSamples) override
    {
        if (!std::exchange(m_begun, true) && !isFit())
            return 0;
        bytes.resize(limit(numSamples * m_format.getBytesPerSample()));
        const std::size_t filled = m_source->read(bytes.data(), bytes.size());
        if (m_bytesLeft)
            *m_bytesLeft -= filled;
        return keepWholeSamples(bytes, filled);
    }

    InputArrival takeIn(const Deadline& deadline) override
    {
        const std::size_t known = m_source->getNumWaiting();
        return limit(known + 1) <= known ? InputArrival::Nothing : m_source->takeIn(deadline);
    }

    std::size_t getNumWaiting() const override
    {
        return limit(m_source->getNumWaiting()) / m_format.getBytesPerSample();
    }

    bool rewind() override
    {
        if (!m_source->rewind(m_samples.place))
            return false;
        m_bytesLeft = m_samples.bytes;
        return true;
    }

private:
    // A live source never comes so far ahead of its pace.
    static constexpr std::uint32_t ReadAheadPerSecond = 10;

    bool isWav() const
    {
        return m_samples.place > 0;
    }

    /// @return how much of so many bytes are samples
    std::size_t limit(std::size_t bytes) const
    {
        const std::size_t sampleBytes = m_format.getBytesPerSample();
        return m_bytesLeft
                   ? std::min<std::uint64_t>(bytes, *m_bytesLeft / sampleBytes * sampleBytes)
                   : bytes;
    }

    /// @return whether there is anything, and nothing else than samples
    bool isFit()
    {
        if (isWav())
            return true;
        const std::string kind = m_source->peekFileKind();
        if (m_source->peek(0).empty() && isAtEnd())
            m_problem = m_source->getName() + " is empty";
        else if (m_refuseFiles && !kind.empty())
            m_problem = m_source->getName() + " contains " + kind +
                        " audio: leave out -f, -r and -c, or add --raw to send " +
                        "its bytes as samples";
        return m_problem.empty();
    }

    std::size_t keepWholeSamples(Buffer& bytes, std::size_t filled)
    {
        const std::size_t sampleBytes = m_format.getBytesPerSample();
        const std::size_t rest = filled % sampleBytes;
        const bool isCut = filled < bytes.size() && isAtEnd();
        if (m_problem.empty())
            m_problem = m_source->getProblem();
        if (isCut && isWav() && (rest != 0 || m_bytesLeft))
            sayCut();
        else if (isCut && rest != 0)
            m_problem = m_source->getName() + " ends inside a sample: " + std::to_string(rest) +
                        " of " + std::to_string(sampleBytes) + " bytes";
        bytes.resize(filled - rest);
        return filled / sampleBytes;
    }

    void sayCut()
    {
        if (!std::exchange(m_cutSaid, true))
            printNotice(
                m_source->getName() + " is cut off: " +
                (m_bytesLeft ? std::to_string(*m_bytesLeft) + " bytes of samples are missing"
                             : "it ends inside a sample"));
    }

    /// @return whether a read that gave less than was wanted has come to the end
    bool isAtEnd() const
    {
        return m_source->getProblem().empty() && !m_source->wasStopped();
    }

    const std::unique_ptr<ByteSource> m_source;
    const WavSamples m_samples;
    const bool m_refuseFiles;
    std::optional<std::uint64_t> m_bytesLeft; // of a WAV file's samples
    bool m_begun = false;
    bool m_cutSaid = false;
};

/// Opens a WAV file, which is sent as it is read, or converted if its samples ask for that.
///
/// @return null if there was a stop
std::unique_ptr<AudioInput>
openWav(std::unique_ptr<ByteSource> source, const std::string& path, bool isStream)
{
    if (const auto samples = findWavSamples(*source))
        return std::make_unique<SampleInput>(std::move(source), *samples, false);
    if (source->wasStopped())
        return nullptr; // it cut the header
    if (!isStream)
        return openSoundInput(*source, path);
    failToRead(
        source->getName(), "the WAV header is malformed, or the samples are compressed: name the "
                           "file, or pipe plain PCM");
}

} // unnamed namespace

std::unique_ptr<AudioInput> openInput(
    const std::string& path,
    const InputSettings& settings,
    const StopSignal& stop,
    const Deadline& deadline)
{
    if (settings.toneHz)
        return makeToneInput(*settings.toneHz, settings.format);
    auto source = std::make_unique<ByteSource>(path, stop, deadline);
    const bool isStream = path == "-" || !source->isFile();
    const bool isRaw = settings.raw || isRawPath(path);
    if (source->wasStopped())
        return nullptr;
    // Where the format of a stream is given, opening it need not wait for the first bytes.
    if (isRaw || (isStream && settings.formatGiven))
        return std::make_unique<SampleInput>(
            std::move(source), WavSamples{.format = settings.format, .bytes = {}}, !isRaw);
    if (settings.formatGiven)
        throw CommandFailure(
            ExitCode::Usage, "-f, -r and -c are for raw input only: add --raw, or leave them out");

    const std::string kind = source->peekFileKind(deadline);
    if (source->wasStopped())
        return nullptr;
    if (kind == "WAV")
        return openWav(std::move(source), path, isStream);
    if (!isStream)
        return openSoundInput(*source, path);
    if (source->peek(0).empty())
        failToRead(source->getName(), "it is empty");
    if (kind.empty())
        throw CommandFailure(
            ExitCode::Usage, source->getName() +
                                 " is not a WAV file: give the format of raw samples with -f, -r "
                                 "and -c, or --raw for S16LE, 48000 Hz, 2 channels");
    throw CommandFailure(
        ExitCode::Failed, source->getName() + " contains " + kind +
                              " audio, which is read only from a file: name the file, pipe it as "
                              "WAV, or add --raw to send its bytes as samples");
}

} // namespace vlx::tool
