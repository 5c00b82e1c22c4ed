#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <vlxkit/RealTime.hpp>
#include <vlxkit/StreamFormat.hpp>

#include "Messages.hpp"

namespace CLI
{
class App;
class Option;
} // namespace CLI

namespace vlx::tool
{

using OptionalDuration = std::optional<std::chrono::nanoseconds>;

/// What every subcommand understands.
struct CommonOptions
{
    int verbosity = 0;
    bool quiet = false;
    ColorUse color = ColorUse::Auto;
    std::string logConfig; ///< property file of log4cplus; empty: none
};

void addCommonOptions(CLI::App& command, CommonOptions& options);

/// @return empty if a text can be a stream's name; otherwise why not
std::string checkStreamName(const std::string& name);

/// Adds the required "-s,--socket NAME", which takes any name that the abstract socket namespace
/// holds.
void addSocketOption(CLI::App& command, std::string& name);

/// Adds an option that takes a duration longer than nothing; without a unit it is seconds.
///
/// @param target  set when the option is given
CLI::Option* addDurationOption(
    CLI::App& command,
    const std::string& flags,
    OptionalDuration& target,
    const std::string& help);

/// Adds "--timeout TIME".
///
/// @param help  what is waited for at most that long
CLI::Option* addTimeoutOption(CLI::App& command, OptionalDuration& target, const std::string& help);

/// Adds "--realtime[=PRIORITY]".
void addRealTimeOption(CLI::App& command, kit::RealTime& realTime);

/// Adds "--report FILE".
void addReportOption(CLI::App& command, std::string& path, const std::string& help);

/// Adds an option whose text is read by a function.
///
/// @param read  returns empty, or what is wrong with the text
CLI::Option* addTextOption(
    CLI::App& command,
    const std::string& flags,
    const std::string& typeName,
    const std::function<std::string(const std::string&)>& read,
    const std::string& help);

/// The same for a whole number within a range.
CLI::Option* addNumberOption(
    CLI::App& command,
    const std::string& flags,
    std::pair<std::uint64_t, std::uint64_t> range,
    const std::function<void(std::uint64_t)>& store,
    const std::string& help);

/// Adds an option that takes a whole number.
template <class Number>
CLI::Option* addNumberOption(
    CLI::App& command,
    const std::string& flags,
    Number& target,
    std::pair<Number, Number> range,
    const std::string& help)
{
    static_assert(std::is_unsigned_v<Number>);
    return addNumberOption(
        command, flags, std::pair<std::uint64_t, std::uint64_t>(range),
        [&target](std::uint64_t number) { target = static_cast<Number>(number); }, help);
}

/// The same for words; the function gets the number of the one that was given.
CLI::Option* addChoiceOption(
    CLI::App& command,
    const std::string& flags,
    const std::vector<std::string>& words,
    const std::function<void(std::size_t)>& choose,
    const std::string& help);

/// Adds an option that takes one of a few words, each of which stands for an enumerator.
template <class Enum>
CLI::Option* addChoiceOption(
    CLI::App& command,
    const std::string& flags,
    Enum& target,
    const std::vector<std::pair<std::string, Enum>>& choices,
    const std::string& help)
{
    std::vector<std::string> words;
    for (const auto& choice : choices)
        words.push_back(choice.first);
    return addChoiceOption(
        command, flags, words, [&target, choices](std::size_t i) { target = choices[i].second; },
        help);
}

/// Adds "-f", "-r" and "-c".
///
/// @param format  holds the defaults
/// @param what    is of this format, such as "raw input or tone"
void addFormatOptions(CLI::App& command, kit::StreamFormat& format, const std::string& what);

} // namespace vlx::tool
