#pragma once

#include <string>

#include <vlxkit/PromptStop.hpp>

namespace vlx::kit
{

/// As the public one.
///
/// @param directory  that the receiver watches
void stopPromptly(Receiver& receiver, const std::string& directory);

} // namespace vlx::kit
