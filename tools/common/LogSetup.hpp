#pragma once

#include <string>

namespace vlx::tool
{

/// Configures log4cplus, which the library logs through. Nothing of it ever goes to standard output.
///
/// Without verbosity nothing is printed: the tool says itself what matters, and quotes the library's
/// last error where that is the cause.
///
/// @param verbosity  0: nothing; 1: INFO and above; 2: DEBUG; 3 and more: TRACE
void configureLogging(int verbosity);

/// @return text of the last ERROR that the library logged; empty if there was none
/// @thread any
std::string getLastLibraryError();

/// @return " (" + the last error + ")", to put behind a message; empty if there was none
std::string quoteLastLibraryError();

} // namespace vlx::tool
