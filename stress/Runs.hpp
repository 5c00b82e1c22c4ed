#pragma once

#include <string>
#include <vector>

namespace vlx::stress
{

constexpr int ExitPassed = 0;
constexpr int ExitFailed = 1;
constexpr int ExitUsage = 2;

using Arguments = std::vector<std::string>;

// The runs, each with its own options; --help tells them. All return an exit code of the program.
int runEndurance(const Arguments& arguments);
int runChaos(const Arguments& arguments);
int runSoak(const Arguments& arguments);

/// @return whether an option is among the arguments
bool hasOption(const Arguments& arguments, const std::string& option);

/// @return the value behind an option; the fallback if the option is not given
std::string
getOption(const Arguments& arguments, const std::string& option, const std::string& fallback);

/// @return the first argument that is a whole number above 0, in minutes; otherwise the fallback
int getMinutes(const Arguments& arguments, int fallback);

/// Prints what the figures depend on.
void printMachine(const std::string& run, unsigned seed);

} // namespace vlx::stress
