#pragma once

#include <cerrno>
#include <cstddef>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "base/Descriptors.hpp"

namespace vlx
{

/// Number of bytes read from a wakeup pipe at once; they carry no information.
inline constexpr std::size_t WakeupDrainBytes = 1024;

/// Creates a pipe, read end first. The write end never blocks: a full pipe wakes the reader anyway.
///
/// @return 0, or the system's error number, with the ends unchanged
inline int createPipe(int (&ends)[2])
{
    if (::pipe(ends) < 0)
        return errno;
    setCloseOnExec(ends[0]);
    setCloseOnExec(ends[1]);
    ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
    return 0;
}

/// Closes both ends of a pipe, if open. Each is reset first: a copy of the process that is forked
/// meanwhile must not close a descriptor that may be another file's there.
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

/// @return whether the pipe could be read; otherwise errno has the reason
inline bool drainWakeupPipe(const int (&ends)[2])
{
    char scratch[WakeupDrainBytes];
    return ::read(ends[0], scratch, sizeof(scratch)) != -1;
}

} // namespace vlx
