#pragma once

#include <cstdint>

namespace vlx::bench
{

/// @return calls of operator new so far in this process, those of shared libraries included. What a
///         C library takes with malloc() is not counted.
std::uint64_t countAllocations();

} // namespace vlx::bench
