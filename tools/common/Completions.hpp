#pragma once

#include <string>
#include <vector>

namespace CLI
{
class App;
} // namespace CLI

namespace vlx::tool
{

/// Prints what can stand at the end of a command line, by the program's own options: each word on a
/// line, its help behind a tab. Asked for by the shells' completions.
///
/// @param words  behind the program's name; the last one is about to be completed
/// @return whether files can stand there
bool printCompletions(const CLI::App& program, const std::vector<std::string>& words);

} // namespace vlx::tool
