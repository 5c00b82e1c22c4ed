#include "OutputFile.hpp"

#include <cerrno>
#include <climits>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "common/ExitCodes.hpp"

namespace vlx::tool
{

namespace
{

constexpr mode_t NewFileMode = 0666; // less the umask
constexpr mode_t PermissionBits = 0777;

[[noreturn]] void failToOpen(const std::string& name, int errorNumber)
{
    throw CommandFailure(
        ExitCode::Failed, "cannot write " + name + ": " + miscUtils::strerror_r_safe(errorNumber));
}

} // unnamed namespace

OutputFile::OutputFile(const std::string& path, const OutputWaits& waits)
    : m_name(path == "-" ? "standard output" : "\"" + path + "\"")
{
    if (path == "-")
    {
        m_fd = STDOUT_FILENO;
        return;
    }

    struct stat status
    {
    };
    const bool exists = ::stat(path.c_str(), &status) == 0;
    if (exists && S_ISDIR(status.st_mode))
        failToOpen(m_name, EISDIR);
    if (exists && !S_ISREG(status.st_mode))
    {
        openSpecial(path, waits);
        return;
    }

    m_regular = true;
    if (exists && ::access(path.c_str(), W_OK) != 0)
        failToOpen(m_name, errno);
    // A directory that takes no new file may hold one that can be written.
    if (!openBeside(path, exists, status.st_mode))
        openInPlace(path);
}

OutputFile::~OutputFile()
{
    close();
}

void OutputFile::openSpecial(const std::string& path, const OutputWaits& waits)
{
    const PollResult result =
        openPatiently(path.c_str(), O_WRONLY, waits.stop, waits.openDeadline, m_fd);
    if (result == PollResult::TimedOut)
        throw CommandFailure(ExitCode::TimedOut, "nobody reads " + m_name);
    if (m_fd < 0 && result == PollResult::Ready)
        failToOpen(m_name, errno);
}

bool OutputFile::openBeside(const std::string& path, bool exists, mode_t formerMode)
{
    char resolved[PATH_MAX];
    // A link stays one: what it leads to is replaced.
    m_target = exists && ::realpath(path.c_str(), resolved) != nullptr ? resolved : path;
    m_written = m_target + ".part-" + std::to_string(::getpid());
    m_fd = ::open(
        m_written.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, NewFileMode);
    if (m_fd < 0)
        m_written.clear();
    else if (exists)
        ::fchmod(m_fd, formerMode & PermissionBits);
    return m_fd >= 0;
}

void OutputFile::openInPlace(const std::string& path)
{
    m_target = path;
    m_fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, NewFileMode);
    m_created = m_fd >= 0;
    if (m_fd < 0 && errno == EEXIST)
        m_fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (m_fd < 0)
        failToOpen(m_name, errno);
}

bool OutputFile::begin()
{
    m_created = false;
    return !m_regular || ::ftruncate(m_fd, 0) == 0;
}

bool OutputFile::commit()
{
    if (m_written.empty())
        return true;
    if (::rename(m_written.c_str(), m_target.c_str()) != 0)
        return false;
    m_written.clear();
    return true;
}

std::uint64_t OutputFile::getSize() const
{
    struct stat status
    {
    };
    return ::fstat(m_fd, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

void OutputFile::truncate(std::uint64_t size)
{
    [[maybe_unused]] const int result = ::ftruncate(m_fd, static_cast<off_t>(size));
}

bool OutputFile::close()
{
    if (m_fd == -1)
        return true;
    const bool ok = ::close(m_fd) == 0;
    const int savedErrno = errno;
    m_fd = -1;
    if (!m_written.empty())
        ::unlink(m_written.c_str());
    else if (m_created)
        ::unlink(m_target.c_str());
    errno = savedErrno;
    return ok;
}

bool isSpecialFile(const std::string& path)
{
    struct stat status
    {
    };
    return ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) &&
           !S_ISDIR(status.st_mode);
}

} // namespace vlx::tool
