#include "ByteSource.hpp"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "common/ExitCodes.hpp"
#include "common/StandardStreams.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

using miscUtils::strerror_r_safe;

} // unnamed namespace

ByteSource::ByteSource(const std::string& path, const StopSignal& stop, const Deadline& deadline)
    : m_name(path == "-" ? "standard input" : "\"" + path + "\""), m_stop(stop)
{
    if (path == "-")
    {
        if (wasClosed(STDIN_FILENO))
            throw CommandFailure(ExitCode::Usage, "standard input is closed");
        m_fd = STDIN_FILENO;
    }
    else
    {
        const PollResult result = openPatiently(path.c_str(), O_RDONLY, m_stop, deadline, m_fd);
        if (result == PollResult::TimedOut)
            failAtDeadline();
        m_stopped = result == PollResult::Stopped;
        if (m_fd < 0 && !m_stopped)
            throw CommandFailure(
                ExitCode::Failed, "cannot read " + m_name + ": " + strerror_r_safe(errno));
    }
    struct stat status
    {
    };
    m_regular = ::fstat(m_fd, &status) == 0 && S_ISREG(status.st_mode);
}

ByteSource::~ByteSource()
{
    if (m_fd > STDIN_FILENO)
        ::close(m_fd);
}

std::size_t ByteSource::getSize() const
{
    struct stat status
    {
    };
    return ::fstat(m_fd, &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

std::size_t ByteSource::read(unsigned char* bytes, std::size_t size)
{
    std::size_t filled = 0;
    std::size_t count = 0;
    while (filled < size && (count = readSome(bytes + filled, size - filled)) > 0)
        filled += count;
    return filled;
}

std::size_t ByteSource::readSome(unsigned char* bytes, std::size_t size, int otherFD)
{
    if (!m_peeked.empty())
    {
        const std::size_t count = std::min(size, m_peeked.size());
        std::copy_n(m_peeked.begin(), count, bytes);
        m_peeked.erase(m_peeked.begin(), m_peeked.begin() + static_cast<std::ptrdiff_t>(count));
        return count;
    }
    while (m_problem.empty())
    {
        const PollResult result = waitForEvents(m_fd, POLLIN, m_stop, {}, otherFD);
        m_stopped = result == PollResult::Stopped;
        if (result != PollResult::Ready)
            return 0;
        const ssize_t count = ::read(m_fd, bytes, size);
        if (count >= 0)
            return static_cast<std::size_t>(count);
        if (errno != EINTR && errno != EAGAIN)
            m_problem = "cannot read on from " + m_name + ": " + strerror_r_safe(errno);
    }
    return 0;
}

bool ByteSource::rewind()
{
    m_peeked.clear();
    return ::lseek(m_fd, 0, SEEK_SET) == 0;
}

bool ByteSource::peekMore(std::size_t size, const Deadline& deadline)
{
    if (waitForEvents(m_fd, POLLIN, m_stop, deadline) == PollResult::TimedOut)
        failAtDeadline();
    Buffer known;
    known.swap(m_peeked); // what is read now must not come from there
    Buffer more(size - known.size());
    const std::size_t count = readSome(more.data(), more.size());
    known.insert(known.end(), more.begin(), more.begin() + static_cast<std::ptrdiff_t>(count));
    m_peeked.swap(known);
    return count > 0;
}

void ByteSource::failAtDeadline() const
{
    throw CommandFailure(ExitCode::TimedOut, "nothing came from " + m_name + " in time");
}

} // namespace vlx::tool
