#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>

namespace vlx
{

/// Longest name in the abstract socket namespace: sun_path without its leading 0 byte.
inline constexpr std::size_t MaxSocketNameLength = sizeof(sockaddr_un::sun_path) - 1;

/// Puts a name of the abstract socket namespace into an address.
///
/// @param address  only the name's bytes are written; family and leading 0 byte must be set
/// @param name     cut to MaxSocketNameLength bytes
/// @return the length to pass to bind() or connect(), without a terminating 0 byte
inline socklen_t setAbstractName(sockaddr_un& address, const std::string& name)
{
    const std::size_t length = std::min(name.size(), MaxSocketNameLength);
    std::copy_n(name.begin(), length, address.sun_path + 1);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
}

} // namespace vlx
