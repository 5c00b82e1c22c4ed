#include "StandardStreams.hpp"

#include <array>

#include <fcntl.h>
#include <unistd.h>

namespace vlx::tool
{

namespace
{

std::array<bool, 3> closedStreams{}; // set before any thread

} // unnamed namespace

void guardStandardStreams()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    {
        if (::fcntl(fd, F_GETFD) != -1)
            continue;
        closedStreams.at(static_cast<std::size_t>(fd)) = true;
        // Gets this very number: all lower ones are open. Kept by a child, as the stream itself.
        ::open("/dev/null", O_RDWR); // NOLINT(android-cloexec-open)
    }
}

bool wasClosed(int fd)
{
    return closedStreams.at(static_cast<std::size_t>(fd));
}

} // namespace vlx::tool
