#include <utility>

#include "AudioInput.hpp"
#include "ByteSource.hpp"
#include "FileKind.hpp"

namespace vlx::tool
{

namespace
{

class RawInput : public AudioInput
{
public:
    RawInput(std::unique_ptr<ByteSource> source, const kit::StreamFormat& format, bool refuseFiles)
        : m_source(std::move(source)), m_refuseFiles(refuseFiles)
    {
        m_format = format;
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

    std::optional<std::uint64_t> getLength() const override
    {
        if (!m_source->isFile())
            return std::nullopt;
        return m_source->getSize() / m_format.getBytesPerSample();
    }

    bool isLive() const override
    {
        return !m_source->isFile();
    }

    std::string getProblem() const override
    {
        return m_problem.empty() ? m_source->getProblem() : m_problem;
    }

private:
    /// @return whether there is anything, and nothing else than samples
    bool isFit()
    {
        const std::string_view begin = peekFileBegin(*m_source, {});
        const std::string kind = getFileKind(begin);
        if (begin.empty() && !m_source->wasStopped() && m_source->getProblem().empty())
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
        if (rest != 0 && m_source->getProblem().empty() && !m_source->wasStopped())
            m_problem = m_source->getName() + " ends inside a sample: " + std::to_string(rest) +
                        " of " + std::to_string(sampleBytes) + " bytes";
        bytes.resize(filled - rest);
        return filled / sampleBytes;
    }

    const std::unique_ptr<ByteSource> m_source;
    const bool m_refuseFiles;
    bool m_begun = false;
    std::string m_problem;
};

} // unnamed namespace

std::unique_ptr<AudioInput>
makeRawInput(std::unique_ptr<ByteSource> source, const kit::StreamFormat& format, bool refuseFiles)
{
    return std::make_unique<RawInput>(std::move(source), format, refuseFiles);
}

} // namespace vlx::tool
