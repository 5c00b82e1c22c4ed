#include "Poll.hpp"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <limits>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "StopSignal.hpp"

namespace vlx::tool
{

namespace
{

using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How often a FIFO is tried that nobody reads: nothing tells when somebody does.
constexpr auto OpenInterval = milliseconds(10);

int getPollTimeout(const Deadline& deadline)
{
    constexpr std::int64_t Longest = std::numeric_limits<int>::max();
    if (!deadline)
        return -1;
    const auto rest = std::chrono::ceil<milliseconds>(*deadline - SteadyClock::now());
    return static_cast<int>(std::clamp<std::int64_t>(rest.count(), 0, Longest));
}

bool isFifo(const char* path)
{
    struct stat status
    {
    };
    return ::stat(path, &status) == 0 && S_ISFIFO(status.st_mode);
}

} // unnamed namespace

PollResult waitForEvents(int fd, short events, const StopSignal& stop, const Deadline& deadline)
{
    pollfd entries[] = {{stop.getFD(), POLLIN, 0}, {fd, events, 0}};
    int numReady = 0;
    do
        numReady = ::poll(entries, std::size(entries), getPollTimeout(deadline));
    while (numReady < 0 && errno == EINTR);
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
    const bool fifo = isFifo(path);
    // Without blocking a reader gets its FIFO at once; a writer only if somebody reads.
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
