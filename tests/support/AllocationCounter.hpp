#pragma once

#include <cstddef>

namespace vlx::testing
{

/// @return how often this process has allocated by operator new, shared libraries included; memory
///         that C libraries take from malloc is not counted
std::size_t countAllocations();

/// @return the same of the calling thread alone
std::size_t countAllocationsOfThread();

} // namespace vlx::testing
