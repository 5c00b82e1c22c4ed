#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "AudioInput.hpp"
#include "common/ExitCodes.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

class RawInput : public AudioInput
{
public:
    RawInput(const std::string& path, const kit::StreamFormat& format, const StopSignal& stop)
        : m_name(path == "-" ? "standard input" : "\"" + path + "\""), m_stop(stop)
    {
        m_format = format;
        m_fd = path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (m_fd < 0)
            throw CommandFailure(
                ExitCode::Failed, "cannot read " + m_name + ": " + describe(errno));
    }

    ~RawInput() override
    {
        if (m_fd != STDIN_FILENO)
            ::close(m_fd);
    }

    RawInput(const RawInput&) = delete;
    RawInput& operator=(const RawInput&) = delete;

    std::size_t read(Buffer& bytes, std::size_t numSamples) override
    {
        bytes.resize(numSamples * m_format.getBytesPerSample());
        std::size_t filled = 0;
        while (filled < bytes.size() && waitForInput())
        {
            const ssize_t count = ::read(m_fd, bytes.data() + filled, bytes.size() - filled);
            if (count > 0)
                filled += static_cast<std::size_t>(count);
            else if (count == 0)
                break;
            else if (errno != EINTR && errno != EAGAIN)
            {
                m_problem = "cannot read on from " + m_name + ": " + describe(errno);
                break;
            }
        }
        return keepWholeSamples(bytes, filled);
    }

    bool rewind() override
    {
        return ::lseek(m_fd, 0, SEEK_SET) == 0;
    }

    std::string getProblem() const override
    {
        return m_problem;
    }

private:
    static std::string describe(int errorNumber)
    {
        return miscUtils::strerror_r_safe(errorNumber);
    }

    /// @return whether there is input, an end or an error to be read; false at a stop
    bool waitForInput() const
    {
        pollfd entries[] = {{m_stop.getFD(), POLLIN, 0}, {m_fd, POLLIN, 0}};
        while (::poll(entries, 2, -1) < 0 && errno == EINTR)
            ;
        return entries[0].revents == 0;
    }

    std::size_t keepWholeSamples(Buffer& bytes, std::size_t filled)
    {
        const std::size_t sampleBytes = m_format.getBytesPerSample();
        const std::size_t rest = filled % sampleBytes;
        if (rest != 0 && m_problem.empty() && !m_stop.isRequested())
            m_problem = m_name + " ends inside a sample: " + std::to_string(rest) + " of " +
                        std::to_string(sampleBytes) + " bytes";
        bytes.resize(filled - rest);
        return filled / sampleBytes;
    }

    const std::string m_name;
    const StopSignal& m_stop;
    int m_fd = -1;
    std::string m_problem;
};

} // unnamed namespace

std::unique_ptr<AudioInput>
openRawInput(const std::string& path, const kit::StreamFormat& format, const StopSignal& stop)
{
    return std::make_unique<RawInput>(path, format, stop);
}

} // namespace vlx::tool
