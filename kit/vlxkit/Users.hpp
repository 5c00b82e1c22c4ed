#pragma once

/// Users of this machine.

#include <optional>
#include <string>

#include <sys/types.h>

#include <vlx/VlxTypes.hpp>

namespace vlx::kit
{

/// Returns the id of a user who is given by name or number, as chown does: a name comes first.
///
/// @param user  such as "alice" or "1000"
/// @return not set if there is no user of this name, and the text is not a valid user id
/// @thread any
VLX_API std::optional<uid_t> findUser(const std::string& user);

} // namespace vlx::kit
