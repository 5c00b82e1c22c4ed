#pragma once

// What a fork leaves of an object with threads: a copy without them, whose descriptors are those of
// the original, and whose locks may be held for ever by threads that do not exist there.

#include <new>

#include <sys/types.h>
#include <unistd.h>

namespace vlx
{

/// @param process  that has initialised an object; 0: no process has
/// @return whether the calling process has only a forked copy of that object
inline bool isForkedCopy(pid_t process)
{
    return process != 0 && process != ::getpid();
}

/// Makes members of a forked copy anew, without destroying what they were: threads, which can be
/// neither joined nor detached here; locks and condition variables, whose destruction may wait for
/// a thread; and containers that a thread may have been changing, whose memory is left alone.
template <class... Members>
void makeAnew(Members&... members)
{
    (::new (static_cast<void*>(&members)) Members(), ...);
}

} // namespace vlx
