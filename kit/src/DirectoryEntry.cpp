#include "DirectoryEntry.hpp"

#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace vlx::kit
{

bool flashDirectoryEntry(const std::string& prefix)
{
    std::string path = prefix + "XXXXXX";
    const int fd = ::mkostemp(path.data(), O_CLOEXEC);
    if (fd < 0)
        return false;

    ::close(fd);
    ::unlink(path.c_str());
    return true;
}

} // namespace vlx::kit
