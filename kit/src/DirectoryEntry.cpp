#include "DirectoryEntry.hpp"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace vlx::kit
{

namespace
{

int createEntry(const std::string& path)
{
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

} // unnamed namespace

bool flashDirectoryEntry(const std::string& path)
{
    int fd = createEntry(path);
    if (fd < 0 && errno == EEXIST && ::unlink(path.c_str()) == 0)
        fd = createEntry(path);
    if (fd < 0)
        return false;

    ::close(fd);
    ::unlink(path.c_str());
    return true;
}

} // namespace vlx::kit
