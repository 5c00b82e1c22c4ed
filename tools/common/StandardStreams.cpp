#include "StandardStreams.hpp"

#include <fcntl.h>
#include <unistd.h>

namespace vlx::tool
{

void guardStandardStreams()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    {
        // Gets this very number: all lower ones are open. Reads and writes fail. Kept by a child,
        // as the stream itself.
        if (::fcntl(fd, F_GETFD) == -1)
            ::open("/dev/null", O_PATH); // NOLINT(android-cloexec-open)
    }
}

bool wasClosed(int fd)
{
    return (::fcntl(fd, F_GETFL) & O_PATH) != 0;
}

} // namespace vlx::tool
