#pragma once

#include <cerrno>
#include <cstddef>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "Descriptors.hpp"

namespace vlx
{

/// Bytes taken from a wakeup pipe at once; they carry no information.
inline constexpr std::size_t WakeupDrainBytes = 1024;

/// Makes a pipe, read end first. The write end never blocks: a pipe that is full wakes anyway.
///
/// @return 0, or the system's error number; the ends are then untouched
inline int createPipe(int (&ends)[2])
{
    if (::pipe(ends) < 0)
        return errno;
    setCloseOnExec(ends[0]);
    setCloseOnExec(ends[1]);
    ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
    return 0;
}

/// Closes both ends of a pipe if there is one. Each is forgotten first: the copy of a process that
/// is forked meanwhile must not close a number that may be another file's there.
inline void closePipe(int (&ends)[2])
{
    for (int& end : ends)
    {
        if (end != -1)
            ::close(std::exchange(end, -1));
    }
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

} // namespace vlx
