#pragma once

#include <cstdint>

namespace miscUtils
{

/// Unsigned 64-bit time value; in nanoseconds wherever this library produces one.
using TimeValue = std::uint64_t;

} // namespace miscUtils
