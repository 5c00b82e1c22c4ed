#include "Bell.hpp"

#include <string>

#include <SystemHelpers.hpp>
#include <unistd.h>

#include "DirectoryEntry.hpp"

namespace vlx::toolkit
{

bool ringBell()
{
    return flashDirectoryEntry(
        getBaseDirectory() + "/.bell-" + SenderDirectoryPrefix + std::to_string(::getpid()));
}

} // namespace vlx::toolkit
