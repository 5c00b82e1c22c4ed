#pragma once

#include <string>

#include <miscUtils/MiscUtils.hpp>

namespace vlx
{

/// @return the system's text for an error and its number, as at the end of log messages
inline std::string describeError(int errorNumber)
{
    return miscUtils::strerror_r_safe(errorNumber) + " (" + std::to_string(errorNumber) + ")";
}

} // namespace vlx
