#pragma once

#include <atomic>
#include <cstdint>

namespace vlx::bench
{

/// Calls of operator new so far in this process, those of shared libraries included. What a C library
/// takes with malloc() is not counted.
inline std::atomic<std::uint64_t> allocationCount = 0;

} // namespace vlx::bench
