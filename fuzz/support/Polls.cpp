#include "Polls.hpp"

#include <cerrno>

#include <poll.h>

namespace
{

int failuresLeft = 0;
int failureError = 0;

} // unnamed namespace

namespace vlx::fuzz
{

void failNextPolls(int count, int error)
{
    failuresLeft = count;
    failureError = error;
}

} // namespace vlx::fuzz

// The names that the linker's --wrap=poll asks for.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" int __real_poll(pollfd* entries, nfds_t count, int timeoutMs);
extern "C" int __wrap_poll(pollfd* entries, nfds_t count, int timeoutMs);

extern "C" int __wrap_poll(pollfd* entries, nfds_t count, int /*timeoutMs*/)
{
    if (failuresLeft > 0)
    {
        --failuresLeft;
        errno = failureError;
        return -1;
    }
    return __real_poll(entries, count, 0);
}
// NOLINTEND(bugprone-reserved-identifier)
