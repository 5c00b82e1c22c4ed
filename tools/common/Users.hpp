#pragma once

#include <string>

#include <sys/types.h>

#include <vlxkit/Users.hpp>

namespace vlx::tool
{

/// @return the user's name; the number as text if the user has no name
std::string getUserName(uid_t user);

using kit::findUser;

} // namespace vlx::tool
