#include "Users.hpp"

#include <vector>

#include <pwd.h>

namespace vlx::tool
{

namespace
{

constexpr std::size_t MaxEntrySize = 1 << 16;

} // unnamed namespace

std::string getUserName(uid_t user)
{
    std::vector<char> memory(MaxEntrySize);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(user, &entry, memory.data(), memory.size(), &found) == 0 && found != nullptr)
        return entry.pw_name;
    return std::to_string(user);
}

} // namespace vlx::tool
