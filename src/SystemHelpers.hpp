#pragma once

// Small helpers around system calls that both ends of a stream need.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

namespace vlx
{

/// Longest name in the abstract socket namespace: sun_path without its leading 0 byte.
inline constexpr std::size_t MaxSocketNameLength = sizeof(sockaddr_un::sun_path) - 1;

/// Bytes taken from a wakeup pipe at once; they carry no information.
inline constexpr std::size_t WakeupDrainBytes = 1024;

inline constexpr const char* SenderDirectoryPrefix = "VlxSender-";

/// @return the system's text for an error and its number, as log messages end with them
inline std::string describeError(int errorNumber)
{
    return miscUtils::strerror_r_safe(errorNumber) + " (" + std::to_string(errorNumber) + ")";
}

/// Keeps a descriptor out of the programs that the host process starts: a child that held our
/// socket would keep a connection open after the host has died.
inline void setCloseOnExec(int fd)
{
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
}

/// Makes a pipe, read end first.
///
/// @return 0, or the system's error number; the ends are then untouched
inline int createPipe(int (&ends)[2])
{
    if (::pipe(ends) < 0)
        return errno;
    setCloseOnExec(ends[0]);
    setCloseOnExec(ends[1]);
    return 0;
}

/// Closes both ends of a pipe if there is one.
inline void closePipe(int (&ends)[2])
{
    if (ends[0] == -1)
        return;
    ::close(ends[0]);
    ::close(ends[1]);
    ends[0] = -1;
    ends[1] = -1;
}

/// @return whether the one byte was written
inline bool writeWakeupByte(const int (&ends)[2])
{
    return ::write(ends[1], "1", 1) == 1;
}

/// @return whether the pipe could be read; otherwise errno tells why
inline bool drainWakeupPipe(const int (&ends)[2])
{
    char scratch[WakeupDrainBytes];
    return ::read(ends[0], scratch, sizeof(scratch)) != -1;
}

/// For pollUninterrupted(): waits until something happens.
inline constexpr int NoTimeout = -1;

/// poll that goes on, with the whole time-out, when a signal interrupts it.
inline int pollUninterrupted(pollfd* entries, std::size_t count, int timeoutMs)
{
    int result = 0;
    do
    {
        result = ::poll(entries, static_cast<nfds_t>(count), timeoutMs);
    } while (result < 0 && errno == EINTR);
    return result;
}

/// Puts a name of the abstract socket namespace into an address.
///
/// @param address  only the name's bytes are written; family and leading 0 byte are there already
/// @param name     cut to MaxSocketNameLength bytes
/// @return the length to pass to bind or connect: no terminating 0 byte belongs to the name
inline socklen_t setAbstractName(sockaddr_un& address, const std::string& name)
{
    const std::size_t length = std::min(name.size(), MaxSocketNameLength);
    std::copy_n(name.begin(), length, address.sun_path + 1);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
}

/// @return the directory in which every sender makes its own, looked up afresh
inline std::string getBaseDirectory()
{
    const char* const directory = std::getenv("TMPDIR");
    return directory != nullptr ? directory : "/tmp/vlx";
}

} // namespace vlx
