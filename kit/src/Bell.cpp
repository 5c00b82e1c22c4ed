#include "Bell.hpp"

#include <string>

#include <SenderDirectory.hpp>
#include <unistd.h>

#include "DirectoryEntry.hpp"

namespace vlx::kit
{

bool ringBell(const std::string& baseDirectory)
{
    const std::string directory = baseDirectory.empty() ? getBaseDirectory() : baseDirectory;
    return flashDirectoryEntry(
        directory + "/.bell-" + SenderDirectoryPrefix + std::to_string(::getpid()) + "-");
}

} // namespace vlx::kit
