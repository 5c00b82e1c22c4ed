#include <cerrno>
#include <cstdlib>
#include <string_view>

#include <SenderDirectory.hpp>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vlxkit/BaseDirectory.hpp>

#include <miscUtils/MiscUtils.hpp>

namespace vlx::kit
{

namespace
{

constexpr std::string_view SocketPathBelowBase = "/VlxSender-XXXXXX/nanomsgChannel.ipc";

// The socket file's path and its terminator have to fit into a socket address.
constexpr std::size_t MaxBaseLength =
    sizeof(sockaddr_un::sun_path) - 1 - SocketPathBelowBase.size();

constexpr mode_t SharedDirectoryMode = 01777;

std::string describe(const std::string& path)
{
    const char* const source = std::getenv("TMPDIR") != nullptr ? "TMPDIR" : "base directory";
    return std::string(source) + " \"" + path + "\"";
}

void createSharedDirectory(BaseDirectory& base)
{
    if (::mkdir(base.path.c_str(), SharedDirectoryMode) == 0)
    {
        // mkdir() took the process's umask off the mode.
        ::chmod(base.path.c_str(), SharedDirectoryMode);
        base.created = true;
    }
    else if (errno != EEXIST)
    {
        base.problem =
            "cannot create " + describe(base.path) + ": " + miscUtils::strerror_r_safe(errno);
    }
}

std::string findProblem(const BaseDirectory& base, BaseDirectoryUse use)
{
    struct stat status
    {
    };
    if (::stat(base.path.c_str(), &status) != 0)
        return describe(base.path) + ": " + miscUtils::strerror_r_safe(errno);
    if (!S_ISDIR(status.st_mode))
        return describe(base.path) + " is not a directory";
    if (use == BaseDirectoryUse::Receive)
        return {};
    if (!base.writable)
        return describe(base.path) + " is not writable";
    if (base.path.size() > MaxBaseLength)
        return describe(base.path) +
               " is too long for a socket path: " + std::to_string(base.path.size()) +
               " characters, at most " + std::to_string(MaxBaseLength);
    return {};
}

} // unnamed namespace

BaseDirectory prepareBaseDirectory(BaseDirectoryUse use)
{
    BaseDirectory base;
    base.path = getBaseDirectory();
    // An empty "TMPDIR" counts as set, and then everything stands in the root directory.
    if (base.path.empty())
        base.path = "/";

    if (std::getenv("TMPDIR") == nullptr)
        createSharedDirectory(base);
    base.writable = ::access(base.path.c_str(), W_OK | X_OK) == 0;
    if (base.problem.empty())
        base.problem = findProblem(base, use);
    return base;
}

} // namespace vlx::kit
