#pragma once

#include <string>

#include <miscUtils/TimeValue.hpp>

namespace miscUtils
{

/// @return time of CLOCK_MONOTONIC, which all processes of the machine share, in nanoseconds
/// @thread any
__attribute__((visibility("default"))) TimeValue getMonotonicSysclockTime();

/// Returns the text of a system error, as strerror() does, but thread-safe.
///
/// @param errorNumber  a value of errno
/// @return the system's text
/// @thread any
__attribute__((visibility("default"))) std::string strerror_r_safe(int errorNumber);

} // namespace miscUtils
