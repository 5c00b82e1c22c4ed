#include <algorithm>
#include <cerrno>
#include <climits>

#include <poll.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "AudioOutput.hpp"
#include "OutputFile.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

// For a reader that takes nothing any more, once a stop is asked for.
constexpr int StopGraceMs = 500;

class RawOutput : public AudioOutput
{
public:
    RawOutput(const std::string& path, const StopSignal& stop) : m_file(path), m_stop(stop) {}

    bool start(const kit::StreamFormat& /*format*/) override
    {
        return m_file.begin() || fail(errno);
    }

    bool write(const ByteView& bytes) override
    {
        std::size_t written = 0;
        while (written < bytes.size())
        {
            if (!waitForReader())
                return false;
            // Not more than a pipe takes without blocking once it is writable.
            const std::size_t size = std::min<std::size_t>(bytes.size() - written, PIPE_BUF);
            const ssize_t count = ::write(m_file.getFD(), bytes.data() + written, size);
            if (count >= 0)
                written += static_cast<std::size_t>(count);
            else if (errno != EINTR && errno != EAGAIN)
                return fail(errno);
        }
        return true;
    }

    bool finish() override
    {
        return m_file.close() || fail(errno);
    }

private:
    bool fail(int errorNumber)
    {
        m_problem =
            "cannot write " + m_file.getName() + ": " + miscUtils::strerror_r_safe(errorNumber);
        return false;
    }

    bool waitForReader()
    {
        pollfd entries[] = {{m_file.getFD(), POLLOUT, 0}, {m_stop.getFD(), POLLIN, 0}};
        if (pollAgain(entries, 2, -1) && entries[0].revents != 0)
            return true;
        if (pollAgain(entries, 1, StopGraceMs))
            return true;
        m_problem = "nobody reads " + m_file.getName() + " any more: the rest is lost";
        return false;
    }

    static bool pollAgain(pollfd* entries, nfds_t count, int timeoutMs)
    {
        int result = 0;
        do
            result = ::poll(entries, count, timeoutMs);
        while (result < 0 && errno == EINTR);
        return result > 0;
    }

    OutputFile m_file;
    const StopSignal& m_stop;
};

} // unnamed namespace

std::unique_ptr<AudioOutput> openRawOutput(const std::string& path, const StopSignal& stop)
{
    return std::make_unique<RawOutput>(path, stop);
}

} // namespace vlx::tool
