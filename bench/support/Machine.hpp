#pragma once

#include <string>

namespace vlx::bench
{

/// @return processor, cores, kernel, governor | build
std::string describeMachine();

/// @return why the figures of this build mean nothing; empty if they do
std::string describeBuildWarning();

} // namespace vlx::bench
