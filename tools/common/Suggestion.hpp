#pragma once

#include <string>
#include <vector>

namespace vlx::tool
{

/// @return of the known words the one that a wrong one may be meant to be; empty if none resembles it
std::string findSimilar(const std::string& wrong, const std::vector<std::string>& known);

} // namespace vlx::tool
