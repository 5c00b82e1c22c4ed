#pragma once

#include <optional>
#include <string>

#include <sys/types.h>

namespace vlx::tool
{

/// @return the user's name; the number as text if it has none
std::string getUserName(uid_t user);

/// Reads a user's name or number, as "chown" does: a name comes first.
///
/// @return nothing if there is no such user, and the text is no number of one
std::optional<uid_t> findUser(const std::string& text);

} // namespace vlx::tool
