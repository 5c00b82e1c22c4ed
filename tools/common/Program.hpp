#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ExitCodes.hpp"

namespace CLI
{
class App;
} // namespace CLI

namespace vlx::tool
{

class StopSignal;

/// One subcommand: how it is added to the program, and what it then does.
struct Subcommand
{
    /// Adds it, and returns its parser.
    std::function<CLI::App*(CLI::App& program)> add;
    /// Carries it out with the options that were parsed, and returns the exit code; 0 also if a
    /// stop was asked for.
    std::function<int(StopSignal& stop)> run;
};

/// Makes a subcommand of its two functions. Its options are made here, and live as long as it.
///
/// @param run  throws CommandFailure, or returns the exit code
template <class Options, class Code>
Subcommand makeSubcommand(
    CLI::App* (*add)(CLI::App& program, Options& options),
    Code (*run)(const Options& options, StopSignal& stop))
{
    const auto options = std::make_shared<Options>();
    return {
        [options, add](CLI::App& program) { return add(program, *options); },
        [options, run](StopSignal& stop) { return toInt(run(*options, stop)); }};
}

/// Reads the command line, runs the subcommand that it names, and reports how that ended.
///
/// @return the exit code
/// @pre no thread of the program runs yet
int runProgram(int argc, char** argv, const std::vector<Subcommand>& subcommands);

} // namespace vlx::tool
