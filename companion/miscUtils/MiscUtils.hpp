#pragma once

#include <string>

#include <miscUtils/TimeValue.hpp>

namespace miscUtils
{

/// @return nanoseconds of CLOCK_MONOTONIC, the clock that all processes of a machine share
/// @thread any
__attribute__((visibility("default"))) TimeValue getMonotonicSysclockTime();

/// Describes a system error, as strerror() does, but safe to call from several threads at once.
///
/// @param errorNumber  a value of errno
/// @return the system's text
/// @thread any
__attribute__((visibility("default"))) std::string strerror_r_safe(int errorNumber);

} // namespace miscUtils
