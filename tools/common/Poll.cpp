#include "Poll.hpp"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <iterator>

#include <fcntl.h>
#include <unistd.h>

#include "StopSignal.hpp"

namespace vlx::tool
{

namespace
{

using SteadyClock = std::chrono::steady_clock;

// How often a FIFO without a reader is tried: nothing reports when a reader comes.
constexpr auto OpenInterval = std::chrono::milliseconds(10);

timespec toTimespec(std::chrono::nanoseconds duration)
{
    constexpr std::int64_t Second = 1'000'000'000;
    const std::int64_t ns = std::max<std::int64_t>(duration.count(), 0);
    return {ns / Second, ns % Second};
}

} // unnamed namespace

PollResult waitForEvents(int fd, short events, const StopSignal& stop, const Deadline& deadline)
{
    pollfd entries[] = {{stop.getFD(), POLLIN, 0}, {fd, events, 0}};
    int numReady = 0;
    do
    {
        const timespec rest =
            toTimespec(deadline.value_or(SteadyClock::time_point::max()) - SteadyClock::now());
        numReady = ::ppoll(entries, std::size(entries), deadline ? &rest : nullptr, nullptr);
    } while (numReady < 0 && errno == EINTR);
    if (entries[0].revents != 0)
        return PollResult::Stopped;
    return numReady == 0 ? PollResult::TimedOut : PollResult::Ready;
}

PollResult openPatiently(
    const char* path,
    int flags,
    const StopSignal& stop,
    const Deadline& deadline,
    int& fd)
{
    constexpr mode_t NewFileMode = 0666;
    std::error_code error;
    const bool fifo = std::filesystem::is_fifo(path, error);
    // Without blocking a reader gets its FIFO at once; a writer only if there is a reader.
    while ((fd = ::open(path, flags | O_CLOEXEC | (fifo ? O_NONBLOCK : 0), NewFileMode)) < 0 &&
           fifo && errno == ENXIO)
    {
        const auto next = SteadyClock::now() + OpenInterval;
        errno = 0;
        if (deadline && next > *deadline)
            return PollResult::TimedOut;
        if (stop.waitUntil(next))
            return PollResult::Stopped;
    }
    if (fd < 0 || !fifo || (flags & O_ACCMODE) != O_RDONLY)
        return PollResult::Ready;

    const PollResult result = waitForEvents(fd, POLLIN, stop, deadline);
    if (result != PollResult::Ready)
    {
        ::close(fd);
        fd = -1;
        errno = 0;
    }
    return result;
}

} // namespace vlx::tool
