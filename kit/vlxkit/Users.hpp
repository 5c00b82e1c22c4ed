#pragma once

/// Users of this machine.

#include <optional>
#include <string>

#include <sys/types.h>

#include <vlx/VlxTypes.hpp>

namespace vlx::kit
{

/// Returns the id of a user given by name or number. As with chown, a name takes precedence.
///
/// @param user  name or number, such as "alice" or "1000"
/// @return the user id; not set if the text is neither a user's name nor a valid user id
/// @thread any
VLX_API std::optional<uid_t> findUser(const std::string& user);

/// Returns the name of a user.
///
/// @param user  user id
/// @return the name; the number as text if the user has no name
/// @thread any
VLX_API std::string getUserName(uid_t user);

} // namespace vlx::kit
