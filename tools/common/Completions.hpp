#pragma once

#include <string>

namespace CLI
{
class App;
} // namespace CLI

namespace vlx::tool
{

/// Writes what a shell needs to complete the program's command lines, from its options.
///
/// @param shell  "bash", "zsh" or "fish"
/// @return empty for any other shell
std::string makeCompletions(const CLI::App& program, const std::string& shell);

} // namespace vlx::tool
