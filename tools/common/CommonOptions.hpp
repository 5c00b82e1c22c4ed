#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <vlxkit/StreamFormat.hpp>

#include "Messages.hpp"

namespace CLI
{
class App;
class Option;
} // namespace CLI

namespace vlx::tool
{

/// What every subcommand understands.
struct CommonOptions
{
    int verbosity = 0;
    bool quiet = false;
    ColorUse color = ColorUse::Auto;
};

void addCommonOptions(CLI::App& command, CommonOptions& options);

/// Adds the required "-s,--socket NAME", which takes any name that the abstract socket namespace
/// holds.
void addSocketOption(CLI::App& command, std::string& name);

/// Adds an option that takes a duration with its unit, longer than nothing.
///
/// @param target  set when the option is given
CLI::Option* addDurationOption(
    CLI::App& command,
    const std::string& flags,
    std::optional<std::chrono::nanoseconds>& target,
    const std::string& help);

/// The words that an option takes, each with what it does.
using Choices = std::vector<std::pair<std::string, std::function<void()>>>;

/// Adds an option that takes one of a few words. The words are put behind the help.
CLI::Option* addChoiceOption(
    CLI::App& command,
    const std::string& flags,
    Choices choices,
    const std::string& help);

/// Adds "-f", "-r" and "-c".
///
/// @param format  holds the defaults
void addFormatOptions(CLI::App& command, kit::StreamFormat& format);

} // namespace vlx::tool
