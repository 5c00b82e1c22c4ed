#pragma once

#include <string>
#include <vector>

namespace CLI
{
class App;
} // namespace CLI

namespace vlx::tool
{

/// Prints the words that can end a command line, for the completions of shells: one per line, with
/// its help behind a tab.
///
/// @param words  behind the program's name; the last one is about to be completed
/// @return whether files can stand there
bool printCompletions(const CLI::App& program, const std::vector<std::string>& words);

} // namespace vlx::tool
