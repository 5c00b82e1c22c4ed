#include "ChannelCheck.hpp"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include <ErrorText.hpp>
#include <LittleEndian.hpp>
#include <SenderDirectory.hpp>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "BaseDirectoryTrust.hpp"

namespace vlx::kit
{

namespace
{

constexpr mode_t PermissionBits = 07777;

constexpr std::string_view IpcScheme = "ipc://";
constexpr std::string_view SocketFileName = "nanomsgChannel.ipc";
constexpr std::size_t NumRandomCharacters = 6;
constexpr std::size_t MaxSocketPathLength = sizeof(sockaddr_un::sun_path) - 1;

bool isSenderDirectoryName(std::string_view name)
{
    const std::string_view prefix = SenderDirectoryPrefix;
    return name.starts_with(prefix) && name.size() == prefix.size() + NumRandomCharacters &&
           std::all_of(
               name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
               [](char c) {
                   return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
                          (c >= 'a' && c <= 'z');
               });
}

/// @return path of the sender's directory; empty if the URI is not a valid sender's
std::string parseDirectory(std::string_view uri)
{
    if (!uri.starts_with(IpcScheme))
        return {};
    const std::string_view path = uri.substr(IpcScheme.size());
    const std::size_t slash = path.rfind('/');
    if (!path.starts_with('/') || path.size() > MaxSocketPathLength ||
        path.substr(slash + 1) != SocketFileName)
        return {};
    const std::string_view directory = path.substr(0, slash);
    const std::size_t begin = directory.rfind('/');
    const bool isSenders =
        begin != directory.npos && isSenderDirectoryName(directory.substr(begin + 1));
    return std::string(isSenders ? directory : std::string_view());
}

std::string describeOwner(uid_t owner, uid_t sender)
{
    return " belongs to user " + std::to_string(owner) + ", the sender is user " +
           std::to_string(sender);
}

std::string findDirectoryProblem(int directoryFD, uid_t sender)
{
    struct stat status = {};
    if (::fstat(directoryFD, &status) != 0)
        return "cannot be checked: " + describeError(errno);
    if (status.st_uid != sender)
        return "is not the sender's: its directory" + describeOwner(status.st_uid, sender);

    // By descriptor: the path may lead somewhere else by now.
    const OwnedDescriptor parent(::openat(directoryFD, "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (parent.get() < 0 && errno == EACCES)
        return {}; // this user cannot join through a directory without search permission
    if (::fstat(parent.get(), &status) != 0)
        return "cannot be checked: " + describeError(errno);
    const std::string distrust = findDistrust(status);
    return distrust.empty() ? distrust : "is not safe: its base directory " + distrust;
}

/// @pre the directory is verified
void checkSocketFile(bool isPipeline, uid_t sender, ChannelCheck& check)
{
    const int directory = check.directory.get();
    const char* const name = SocketFileName.data();
    struct stat status = {};
    const int error = ::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
    if (error == EACCES)
        return; // this user may not join, and cannot see more
    if (error != 0 && !(error == ENOENT && isPipeline))
        check.problem = "cannot be checked: " + describeError(error);
    else if (error == 0 && !S_ISSOCK(status.st_mode))
        check.problem = "is not a socket";
    else if (!isPipeline && status.st_uid != sender)
        check.problem = "is not the sender's: it" + describeOwner(status.st_uid, sender);
    if (!check.problem.empty())
        return;
    check.socketFileMode = error == 0 ? status.st_mode & PermissionBits : 0;
    check.mayJoin = isPipeline ? ::faccessat(directory, ".", W_OK | X_OK, AT_EACCESS) == 0
                               : ::faccessat(directory, name, W_OK, AT_EACCESS) == 0;
}

} // unnamed namespace

OwnedDescriptor::~OwnedDescriptor()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

OwnedDescriptor::OwnedDescriptor(OwnedDescriptor&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1))
{
}

OwnedDescriptor& OwnedDescriptor::operator=(OwnedDescriptor&& other) noexcept
{
    std::swap(m_fd, other.m_fd);
    return *this;
}

std::string ChannelCheck::getURI() const
{
    std::string uri(IpcScheme);
    return uri.append("/proc/self/fd/")
        .append(std::to_string(directory.get()))
        .append("/")
        .append(SocketFileName);
}

ChannelCheck checkChannel(const InitialInfo& info, uid_t sender)
{
    ChannelCheck check;
    const bool isPipeline = info.nanomsgProtocol == NanomsgProtocol::Pipeline;
    const std::string directory = parseDirectory(info.nanomsgURI);
    if (!isPipeline && info.nanomsgProtocol != NanomsgProtocol::PubSub)
        check.problem = "has an unknown protocol";
    else if (directory.empty())
        check.problem = "is not a valid sender path";
    if (!check.problem.empty())
        return check;

    check.directory =
        OwnedDescriptor(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (check.directory.get() < 0)
    {
        if (errno != EACCES)
            check.problem = "has no usable directory: " + describeError(errno);
    }
    else
    {
        check.problem = findDirectoryProblem(check.directory.get(), sender);
        if (check.problem.empty())
            checkSocketFile(isPipeline, sender, check);
    }
    if (check.problem.empty())
        check.socketFile = info.nanomsgURI.substr(IpcScheme.size());
    return check;
}

std::optional<InitialInfo> readInitialInfo(const ByteView& packet)
{
    ByteCursor cursor(packet);
    const bool isComplete = cursor.read<std::uint16_t>() && cursor.readTerminatedString() &&
                            cursor.read<std::uint16_t>() && cursor.read<std::uint8_t>() &&
                            cursor.read<std::uint8_t>() && cursor.readTerminatedString();
    return isComplete ? std::optional(parseInitialInfoPacket(packet)) : std::nullopt;
}

} // namespace vlx::kit
