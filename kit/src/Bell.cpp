#include "Bell.hpp"

#include <string>

#include <SystemHelpers.hpp>
#include <unistd.h>

#include "DirectoryEntry.hpp"

namespace vlx::kit
{

bool ringBell()
{
    return flashDirectoryEntry(
        getBaseDirectory() + "/.bell-" + SenderDirectoryPrefix + std::to_string(::getpid()));
}

} // namespace vlx::kit
