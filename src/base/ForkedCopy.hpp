#pragma once

// Copies of objects with threads in a forked child. The threads do not exist there, the descriptors
// are those of the original, and the locks may stay locked forever.

#include <new>

#include <sys/types.h>
#include <unistd.h>

namespace vlx
{

/// @param process  process that has initialised an object; 0: not initialised
/// @return whether the calling process has only a forked copy of that object
inline bool isForkedCopy(pid_t process)
{
    return process != 0 && process != ::getpid();
}

/// Constructs members of a forked copy again, without destroying the old ones: threads, which can
/// be neither joined nor detached here; locks and condition variables, whose destruction may wait
/// for a thread; and containers that a thread may have been changing.
template <class... Members>
void makeAnew(Members&... members)
{
    (::new (static_cast<void*>(&members)) Members(), ...);
}

} // namespace vlx
