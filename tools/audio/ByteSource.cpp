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
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

using miscUtils::strerror_r_safe;

/// What a kind of audio file begins with: four bytes at most, which raw samples hardly are.
struct FileBegin
{
    std::string_view bytes;
    const char* kind;
};

constexpr FileBegin FileBegins[] = {
    {"RIFF", "WAV"},
    {"RIFX", "WAV"},
    {"RF64", "WAV"},
    {"fLaC", "FLAC"},
    {"OggS", "Ogg"},
    {"ID3", "MP3"},
    {"FORM", "AIFF"},
    {".snd", "AU"},
    {"caff", "CAF"},
    {"riff", "W64"},
    {"\x1A\x45\xDF\xA3", "Matroska"}};
constexpr std::size_t LongestBegin = 4;

} // unnamed namespace

void failToRead(const std::string& name, const std::string& reason)
{
    throw CommandFailure(ExitCode::Failed, "cannot read " + name + ": " + reason);
}

ByteSource::ByteSource(const std::string& path, const StopSignal& stop, const Deadline& deadline)
    : m_name(path == "-" ? "standard input" : quote(path)), m_stop(stop)
{
    if (path == "-")
    {
        if (wasClosed(STDIN_FILENO))
            throw CommandFailure(ExitCode::Usage, "standard input is closed");
        if (::isatty(STDIN_FILENO) == 1)
            throw CommandFailure(
                ExitCode::Usage,
                "standard input is a terminal: pipe samples or a WAV file into it, or name a file");
        m_fd = STDIN_FILENO;
    }
    else
    {
        const PollResult result = openPatiently(path.c_str(), O_RDONLY, m_stop, deadline, m_fd);
        if (result == PollResult::TimedOut)
            failAtDeadline();
        m_stopped = result == PollResult::Stopped;
        if (m_fd < 0 && !m_stopped)
            failToRead(m_name, strerror_r_safe(errno));
    }
    struct stat status
    {
    };
    m_regular = ::fstat(m_fd, &status) == 0 && S_ISREG(status.st_mode);
    if (S_ISDIR(status.st_mode))
    {
        ::close(m_fd);
        failToRead(m_name, strerror_r_safe(EISDIR));
    }
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

std::string_view ByteSource::peek(std::size_t size, const Deadline& deadline)
{
    const std::size_t known = m_peeked.size();
    if (known < size)
    {
        m_peeked.resize(size);
        m_peeked.resize(known + fetch(m_peeked.data() + known, size - known, deadline));
    }
    return {reinterpret_cast<const char*>(m_peeked.data()), m_peeked.size()};
}

std::string ByteSource::peekFileKind(const Deadline& deadline)
{
    const std::string_view begin = peek(LongestBegin, deadline);
    const auto* const found = std::find_if(
        std::begin(FileBegins), std::end(FileBegins),
        [&](const FileBegin& known) { return begin.starts_with(known.bytes); });
    return found == std::end(FileBegins) ? "" : found->kind;
}

void ByteSource::setReadAhead(std::size_t bytes)
{
    constexpr std::size_t UsualPipeSize = 1 << 16;
    const int pipeSize = ::fcntl(m_fd, F_GETPIPE_SZ);
    m_readAhead = bytes + (pipeSize > 0 ? static_cast<std::size_t>(pipeSize) : UsualPipeSize);
}

InputArrival ByteSource::takeIn(const Deadline& deadline)
{
    const std::size_t known = m_peeked.size();
    if (m_ended || !m_problem.empty())
        return InputArrival::Nothing;
    if (known >= m_readAhead)
        return InputArrival::Full;
    const PollResult result = waitForEvents(m_fd, POLLIN, m_stop, deadline);
    m_stopped = result == PollResult::Stopped;
    if (result != PollResult::Ready)
        return InputArrival::Nothing;
    m_peeked.resize(m_readAhead);
    const ssize_t count = ::read(m_fd, m_peeked.data() + known, m_readAhead - known);
    m_peeked.resize(known + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    m_ended = count == 0;
    if (count < 0 && errno != EINTR && errno != EAGAIN)
        failToReadOn();
    return count == 0 || !m_problem.empty() ? InputArrival::Nothing : InputArrival::Some;
}

void ByteSource::failToReadOn()
{
    m_problem = "cannot continue reading " + m_name + ": " + strerror_r_safe(errno);
}

std::size_t ByteSource::read(unsigned char* bytes, std::size_t size)
{
    const auto known = static_cast<std::ptrdiff_t>(std::min(size, m_peeked.size()));
    unsigned char* const rest = std::copy_n(m_peeked.begin(), known, bytes);
    m_peeked.erase(m_peeked.begin(), m_peeked.begin() + known);
    const auto filled = static_cast<std::size_t>(known);
    return filled + fetch(rest, size - filled, {});
}

std::size_t ByteSource::fetch(unsigned char* bytes, std::size_t size, const Deadline& deadline)
{
    std::size_t filled = 0;
    while (filled < size && m_problem.empty() && !m_ended)
    {
        const PollResult result = waitForEvents(m_fd, POLLIN, m_stop, deadline);
        m_stopped = result == PollResult::Stopped;
        if (result == PollResult::TimedOut)
            failAtDeadline();
        if (m_stopped)
            break;
        const ssize_t count = ::read(m_fd, bytes + filled, size - filled);
        if (count == 0)
            break;
        if (count > 0)
            filled += static_cast<std::size_t>(count);
        else if (errno != EINTR && errno != EAGAIN)
            failToReadOn();
    }
    return filled;
}

bool ByteSource::rewind(std::uint64_t place)
{
    if (::lseek(m_fd, static_cast<off_t>(place), SEEK_SET) < 0)
        return false;
    m_peeked.clear();
    m_ended = false;
    return true;
}

void ByteSource::failAtDeadline() const
{
    throw CommandFailure(ExitCode::TimedOut, "no data from " + m_name + " in time");
}

} // namespace vlx::tool
