#include "Users.hpp"

#include <limits>
#include <vector>

#include <pwd.h>

#include "Numbers.hpp"

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

std::optional<uid_t> findUser(const std::string& text)
{
    std::vector<char> memory(MaxEntrySize);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwnam_r(text.c_str(), &entry, memory.data(), memory.size(), &found) == 0 &&
        found != nullptr)
        return entry.pw_uid;
    const auto number = parseNumber(text);
    // The largest one stands for no user at all.
    if (!number || *number >= std::numeric_limits<uid_t>::max())
        return std::nullopt;
    return static_cast<uid_t>(*number);
}

} // namespace vlx::tool
