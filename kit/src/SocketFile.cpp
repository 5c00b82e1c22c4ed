#include "SocketFile.hpp"

#include <cerrno>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Discovery.hpp>
#include <vlxkit/Text.hpp>

#include "base/SenderDirectory.hpp"

namespace vlx::kit
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr auto AnswerTimeout = std::chrono::seconds(5); // far longer than a busy machine takes
constexpr auto BusyRetryInterval = std::chrono::milliseconds(1);

struct Modes
{
    mode_t umask; // in force while both are created
    mode_t file;
    mode_t pubSubDirectory;   // receivers only look up the socket file there
    mode_t pipelineDirectory; // the receiver creates it there; no other user may then remove it
};

/// The directory's sticky bit also marks the directory as one that is locked while in use.
constexpr Modes toModes(SocketMode mode)
{
    switch (mode)
    {
    case SocketMode::Owner:
        break;
    case SocketMode::Group:
        return {0007, 0660, 01750, 01770};
    case SocketMode::All:
        return {0000, 0666, 01755, 01777};
    }
    return {0077, 0600, 01700, 01700};
}

std::string describe(const std::string& path, int error)
{
    return quote(path) + ": " + miscUtils::strerror_r_safe(error);
}

/// @return whether the file system has no locks. Then no other process can lock the directory
///         either and mistake it for a dead one
bool isWithoutLocks(int error)
{
    return error == EOPNOTSUPP || error == ENOSYS || error == EINVAL || error == ENOLCK;
}

bool isOwnSocket(int directoryFD, const std::string& name)
{
    struct stat status = {};
    return ::fstatat(directoryFD, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISSOCK(status.st_mode) && status.st_uid == ::geteuid();
}

/// @return whether the socket file is missing or was made by the receiver of a user who may join.
///         With groups every user counts: which of them may join is unknown here
bool isJoinersSocketOrNothing(int directoryFD, const std::string& name, SocketMode mode)
{
    struct stat status = {};
    if (::fstatat(directoryFD, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT;
    constexpr uid_t Root = 0;
    const bool mayBe =
        mode != SocketMode::Owner || status.st_uid == ::geteuid() || status.st_uid == Root;
    return S_ISSOCK(status.st_mode) && mayBe;
}

/// Removes a foreign entry, so that the sender can be shut down: nanomsg aborts the process if it
/// cannot unlink the entry. A directory that is not empty can only be renamed.
void removeIntruder(int directoryFD, const std::string& name)
{
    const std::string aside = name + ".foreign";
    if (::unlinkat(directoryFD, name.c_str(), 0) != 0 &&
        ::unlinkat(directoryFD, name.c_str(), AT_REMOVEDIR) != 0)
        ::renameat(directoryFD, name.c_str(), directoryFD, aside.c_str());
}

} // unnamed namespace

std::string findSocketFile(const std::string& name)
{
    const auto deadline = Clock::now() + AnswerTimeout;
    SenderProbe answer = probeSender(name, AnswerTimeout);
    // Waiting receivers may have filled the backlog before the listener thread first ran.
    while (answer.busy && Clock::now() < deadline)
    {
        std::this_thread::sleep_for(BusyRetryInterval);
        answer = probeSender(name, AnswerTimeout);
    }
    return answer.initialInfo ? toSocketFilePath(answer.initialInfo->nanomsgURI) : std::string();
}

mode_t toUmask(SocketMode mode)
{
    return toModes(mode).umask;
}

Status protectSocketFile(
    const std::string& path,
    NanomsgProtocol protocol,
    SocketMode mode,
    DirectoryLock& lock)
{
    const bool isPipeline = protocol == NanomsgProtocol::Pipeline;
    const Modes modes = toModes(mode);
    const std::size_t slash = path.rfind('/');
    const std::string directory = path.substr(0, slash);
    const std::string name = path.substr(slash + 1);

    const OwnedDescriptor opened(
        ::open(directory.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const int fd = opened.get();
    if (!opened.isOpen())
        return {
            ErrorCode::DirectoryNotTrusted,
            "another process has replaced the sender's directory " + describe(directory, errno)};
    const int lockError = lock.take(fd);
    if (lockError != 0 && !isWithoutLocks(lockError))
        return {
            ErrorCode::Failed,
            "cannot lock the sender's directory " + describe(directory, lockError)};
    if (const int error = changeOwnMode(
            fd, S_IFDIR, isPipeline ? modes.pipelineDirectory : modes.pubSubDirectory))
        return {
            ErrorCode::DirectoryNotTrusted,
            "cannot restrict the sender's directory " + describe(directory, error)};

    if (!(isPipeline ? isJoinersSocketOrNothing(fd, name, mode) : isOwnSocket(fd, name)))
    {
        removeIntruder(fd, name);
        return {
            ErrorCode::DirectoryNotTrusted,
            "another process has replaced the sender's socket file " + quote(path)};
    }
    if (isPipeline) // its receiver sets the mode
        return {};
    if (const int error = changeSocketFileMode(path, modes.file))
        return {ErrorCode::DirectoryNotTrusted, "cannot set the mode of " + describe(path, error)};
    return {};
}

} // namespace vlx::kit
