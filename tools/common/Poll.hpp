#pragma once

#include <chrono>
#include <optional>

#include <poll.h>

namespace vlx::tool
{

class StopSignal;

using Deadline = std::optional<std::chrono::steady_clock::time_point>;

enum class PollResult
{
    Ready,
    Stopped,
    TimedOut,
};

/// Waits until a descriptor has one of the events, an error or an end.
///
/// @param fd        negative: none
/// @param deadline  unset: never
PollResult
waitForEvents(int fd, short events, const StopSignal& stop, const Deadline& deadline = {});

/// Opens a file without hanging: a FIFO, which has no other end yet, is waited for, until there is
/// a stop or the deadline. Everything else is opened as usual.
///
/// @param flags  for open(): O_RDONLY or O_WRONLY, and what goes with it
/// @param fd     the descriptor, close-on-exec and, for a FIFO, non-blocking; -1 with errno set if
///               the file cannot be opened, -1 with errno 0 unless the result is Ready
PollResult openPatiently(
    const char* path,
    int flags,
    const StopSignal& stop,
    const Deadline& deadline,
    int& fd);

} // namespace vlx::tool
