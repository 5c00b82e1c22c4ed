#include <array>
#include <charconv>
#include <limits>

#include <pwd.h>

#include <vlxkit/Users.hpp>

namespace vlx::kit
{

namespace
{

/// Where a user's entry has its texts.
using EntryMemory = std::array<char, 1 << 16>;

} // unnamed namespace

std::string getUserName(uid_t user)
{
    EntryMemory memory{};
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(user, &entry, memory.data(), memory.size(), &found) == 0 && found != nullptr)
        return entry.pw_name;
    return std::to_string(user);
}

std::optional<uid_t> findUser(const std::string& user)
{
    EntryMemory memory{};
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwnam_r(user.c_str(), &entry, memory.data(), memory.size(), &found) == 0 &&
        found != nullptr)
        return found->pw_uid;

    uid_t number = 0;
    const char* const end = user.data() + user.size();
    const auto [rest, error] = std::from_chars(user.data(), end, number);
    // The largest number stands for no user.
    if (error != std::errc() || rest != end || number == std::numeric_limits<uid_t>::max())
        return std::nullopt;
    return number;
}

} // namespace vlx::kit
