#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/BaseDirectory.hpp>
#include <vlxkit/Text.hpp>

#include "BaseDirectoryTrust.hpp"
#include "base/SenderDirectory.hpp"

namespace vlx::kit
{

namespace
{

constexpr mode_t SharedDirectoryMode = 01777;

std::string describe(const std::string& path, int error)
{
    return quote(path) + ": " + miscUtils::strerror_r_safe(error);
}

ErrorCode toErrorCode(int error)
{
    return error == EACCES || error == EPERM || error == EROFS ? ErrorCode::NotPermitted
                                                               : ErrorCode::NoDirectory;
}

/// @return the command that creates a base directory for all users
std::string makeRemedy(const std::string& path)
{
    return "install -d -m 1777 -o root " + path;
}

void createSharedDirectory(BaseDirectory& base)
{
    if (::mkdir(base.path.c_str(), SharedDirectoryMode) == 0)
    {
        // mkdir() applied the process's umask to the mode. Use a descriptor: if another process
        // puts a link in its place, the link's target must not be opened to all users.
        const int fd = ::open(base.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd >= 0)
        {
            ::fchmod(fd, SharedDirectoryMode);
            ::close(fd);
        }
        base.created = true;
        base.notice = "created base directory " + base.path + " (mode 1777)";
        if (::geteuid() != 0)
            base.notice += "; other users cannot share it until root owns it; run as root: " +
                           makeRemedy(base.path);
    }
    else if (errno != EEXIST)
        base.status = {
            toErrorCode(errno), "cannot create base directory " + describe(base.path, errno)};
}

/// @return as findDistrust(), also for a link: its owner can point it elsewhere
std::string findDistrustOfPath(const std::string& path, const struct stat& target)
{
    struct stat link = {};
    if (::lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode))
    {
        link.st_mode = 0; // only the owner of a link counts
        const std::string distrust = findDistrust(link);
        if (!distrust.empty())
            return "is a link that " + distrust;
    }
    return findDistrust(target);
}

Status check(const BaseDirectory& base, BaseDirectoryUse use, const std::string& source)
{
    struct stat status = {};
    if (::stat(base.path.c_str(), &status) != 0)
        return {toErrorCode(errno), source + " " + describe(base.path, errno)};
    const std::string subject = source + " " + quote(base.path);
    if (!S_ISDIR(status.st_mode))
        return {ErrorCode::NoDirectory, subject + " is not a directory"};
    const std::string distrust = findDistrustOfPath(base.path, status);
    if (!distrust.empty())
        return {
            ErrorCode::DirectoryNotTrusted, subject + " " + distrust +
                                                "; run as root: " + makeRemedy(base.path) +
                                                "; or set TMPDIR to a directory of your own"};
    if (use == BaseDirectoryUse::Receive)
        return {};
    if (!base.writable)
        return {ErrorCode::NotPermitted, subject + " is not writable"};
    const std::size_t maxBaseLength =
        MaxSocketPathLength - makeSocketFilePath(makeSenderDirectoryTemplate("")).size();
    if (base.path.size() > maxBaseLength)
        return {
            ErrorCode::NoDirectory,
            subject + " is too long for a socket path: " + std::to_string(base.path.size()) +
                " bytes, at most " + std::to_string(maxBaseLength)};
    return {};
}

} // unnamed namespace

BaseDirectory prepareBaseDirectory(BaseDirectoryUse use, const std::string& directory)
{
    BaseDirectory base;
    base.path = directory.empty() ? getBaseDirectory() : directory;
    // An empty "TMPDIR" counts as set: the library then uses the root directory.
    if (base.path.empty())
        base.path = "/";
    // Receivers may have another working directory.
    std::error_code error;
    const std::string absolute = std::filesystem::absolute(base.path, error);
    if (!error)
        base.path = absolute;

    const bool isFromEnvironment = directory.empty() && std::getenv("TMPDIR") != nullptr;
    if (directory.empty() && !isFromEnvironment)
        createSharedDirectory(base);
    base.writable = ::faccessat(AT_FDCWD, base.path.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
    if (base.status)
        base.status = check(base, use, isFromEnvironment ? "TMPDIR" : "base directory");
    return base;
}

} // namespace vlx::kit
