#include "OutputFile.hpp"

#include <cerrno>

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

} // unnamed namespace

OutputFile::OutputFile(const std::string& path)
    : m_path(path), m_name(path == "-" ? "standard output" : "\"" + path + "\"")
{
    if (path == "-")
    {
        m_fd = STDOUT_FILENO;
        m_begun = true;
        return;
    }

    m_fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, NewFileMode);
    m_created = m_fd >= 0;
    if (m_fd < 0 && errno == EEXIST)
        m_fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (m_fd < 0)
        throw CommandFailure(
            ExitCode::Failed, "cannot write " + m_name + ": " + miscUtils::strerror_r_safe(errno));

    struct stat status
    {
    };
    m_regular = ::fstat(m_fd, &status) == 0 && S_ISREG(status.st_mode);
}

OutputFile::~OutputFile()
{
    close();
}

bool OutputFile::begin()
{
    m_begun = true;
    return !m_regular || ::ftruncate(m_fd, 0) == 0;
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
    m_fd = -1;
    if (m_created && !m_begun)
        ::unlink(m_path.c_str());
    return ok;
}

} // namespace vlx::tool
