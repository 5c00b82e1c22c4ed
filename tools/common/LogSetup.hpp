#pragma once

#include <memory>
#include <string>

#include <vlxkit/Logging.hpp>

namespace vlx::tool
{

/// Configures log4cplus, which the library logs through. Nothing of it ever goes to standard
/// output, unless the user's own configuration says so.
///
/// Without verbosity nothing is printed: the tool's own messages name the cause.
///
/// @param verbosity   0: nothing; 1: INFO and above, and joins and leaves; 2: DEBUG; 3 and more:
///                    TRACE
/// @param configFile  property file of log4cplus that says everything instead; empty: none
/// @return to be kept as long as the library is used; null with a configuration of the user's own
/// @throws CommandFailure if the file cannot be read
std::unique_ptr<kit::LogListener>
configureLogging(int verbosity, const std::string& configFile = {});

} // namespace vlx::tool
