#include "ChannelCheck.hpp"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "BaseDirectoryTrust.hpp"
#include "base/ErrorText.hpp"
#include "base/LittleEndian.hpp"
#include "base/SenderDirectory.hpp"

namespace vlx::kit
{

namespace
{

constexpr mode_t PermissionBits = 07777;

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
    if (!parent.isOpen() && errno == EACCES)
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
    struct stat status = {};
    const int error =
        ::fstatat(directory, SocketFileName, &status, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
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
                               : ::faccessat(directory, SocketFileName, W_OK, AT_EACCESS) == 0;
}

} // unnamed namespace

std::string ChannelCheck::getURI() const
{
    return makeSocketURI(makeSocketFilePath("/proc/self/fd/" + std::to_string(directory.get())));
}

ChannelCheck checkChannel(const InitialInfo& info, uid_t sender)
{
    ChannelCheck check;
    const bool isPipeline = info.nanomsgProtocol == NanomsgProtocol::Pipeline;
    const std::string directory = findSenderDirectory(info.nanomsgURI);
    if (!isPipeline && info.nanomsgProtocol != NanomsgProtocol::PubSub)
        check.problem = "has an unknown protocol";
    else if (directory.empty())
        check.problem = "is not a valid sender path";
    if (!check.problem.empty())
        return check;

    check.directory =
        OwnedDescriptor(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!check.directory.isOpen())
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
        check.socketFile = toSocketFilePath(info.nanomsgURI);
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
