#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <miscUtils/SyncedNetClock.hpp>

namespace vlx::tool
{

/// Begins to follow a network clock as receivers do.
void follow(miscUtils::SyncedNetClock& clock, const std::string& address, std::uint16_t port);

/// @return the network clock less CLOCK_MONOTONIC, nanoseconds; nothing before it is synchronised
///         and while it adapts to a jump
std::optional<std::int64_t> measureOffset(const miscUtils::SyncedNetClock& clock);

} // namespace vlx::tool
