#include "ByteSource.hpp"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
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
    while (m_peeked.size() < size)
    {
        const PollResult result = readMore(size - m_peeked.size(), deadline);
        if (result == PollResult::TimedOut)
            failAtDeadline();
        if (result == PollResult::Stopped)
            break;
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
    if (m_peeked.size() >= m_readAhead && !m_ended && m_problem.empty())
        return InputArrival::Full;
    const bool isReady = readMore(m_readAhead - m_peeked.size(), deadline) == PollResult::Ready;
    return isReady ? InputArrival::Some : InputArrival::Nothing;
}

/// Reads once, as soon as there is something.
///
/// @return Stopped also at the end and after an error
PollResult ByteSource::readMore(std::size_t size, const Deadline& deadline)
{
    if (m_ended || !m_problem.empty())
        return PollResult::Stopped;
    const PollResult result = waitForEvents(m_fd, POLLIN, m_stop, deadline);
    m_stopped = result == PollResult::Stopped;
    if (result != PollResult::Ready)
        return result;
    const std::size_t known = m_peeked.size();
    m_peeked.resize(known + size);
    const ssize_t count = ::read(m_fd, m_peeked.data() + known, size);
    m_peeked.resize(known + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    m_ended = count == 0;
    if (count < 0 && errno != EINTR && errno != EAGAIN)
        m_problem = "cannot continue reading " + m_name + ": " + strerror_r_safe(errno);
    return m_ended || !m_problem.empty() ? PollResult::Stopped : PollResult::Ready;
}

std::size_t ByteSource::read(unsigned char* bytes, std::size_t size)
{
    const std::size_t count = std::min(peek(size).size(), size);
    const auto end = m_peeked.begin() + static_cast<std::ptrdiff_t>(count);
    std::copy(m_peeked.begin(), end, bytes);
    m_peeked.erase(m_peeked.begin(), end);
    return count;
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
