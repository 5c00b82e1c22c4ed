#pragma once

#include <cstddef>

namespace vlx::testing
{

/// @return how often the calling thread has allocated by operator new; memory that C libraries take
///         from malloc is not counted
std::size_t countAllocationsOfThread();

} // namespace vlx::testing
