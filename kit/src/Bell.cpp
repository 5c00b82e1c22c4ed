#include "Bell.hpp"

#include <string>

#include <unistd.h>

#include "DirectoryEntry.hpp"
#include "base/SenderDirectory.hpp"

namespace vlx::kit
{

bool ringBell(const std::string& baseDirectory)
{
    return flashDirectoryEntry(
        getBaseDirectory(baseDirectory) + "/.bell-" + SenderDirectoryPrefix +
        std::to_string(::getpid()) + "-");
}

} // namespace vlx::kit
