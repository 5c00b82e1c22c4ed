#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <sys/types.h>

#include <vlxkit/RealTime.hpp>
#include <vlxkit/StreamFormat.hpp>

#include "Messages.hpp"
#include "Numbers.hpp"
#include "Text.hpp"

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
/// @param help  what happens when the time has passed
CLI::Option* addTimeoutOption(CLI::App& command, OptionalDuration& target, const std::string& help);

/// Adds "--realtime[=PRIORITY]".
void addRealTimeOption(CLI::App& command, kit::RealTime& realTime);

/// Adds "--sender-user USER", a name or a number.
void addSenderUserOption(CLI::App& command, std::optional<uid_t>& user);

/// Adds "--report FILE".
///
/// @param help  "Write a report of ...", which the file's description follows
void addReportOption(CLI::App& command, std::string& path, const std::string& help);

/// Takes an option's text, and returns what is wrong with it; empty if nothing is.
using TextReader = std::function<std::string(const std::string& text)>;

/// Adds an option whose text is read by a function.
CLI::Option* addTextOption(
    CLI::App& command,
    const std::string& flags,
    const std::string& typeName,
    const TextReader& read,
    const std::string& help);

/// @return what is wrong with a whole number within a range; empty if nothing is
std::string checkNumber(const std::string& text, std::uint64_t least, std::uint64_t most);

/// Reads a whole number within a range.
///
/// @return as checkNumber()
template <class Number>
std::string
readNumber(const std::string& text, std::uint64_t least, std::uint64_t most, Number& target)
{
    std::string problem = checkNumber(text, least, most);
    if (problem.empty())
        target = static_cast<Number>(*parseNumber(text));
    return problem;
}

/// Adds an option that takes a whole number within a range.
template <class Number>
CLI::Option* addNumberOption(
    CLI::App& command,
    const std::string& flags,
    Number& target,
    std::pair<std::uint64_t, std::uint64_t> range,
    const std::string& help)
{
    return addTextOption(
        command, flags, "N",
        [&target, range](const std::string& text)
        { return readNumber(text, range.first, range.second, target); },
        help);
}

/// Adds an option that takes a UDP port.
CLI::Option* addPortOption(
    CLI::App& command,
    const std::string& flags,
    std::uint16_t& port,
    const std::string& help);

/// Adds an option that takes one of a few words, each of which stands for an enumerator.
template <class Enum>
CLI::Option* addChoiceOption(
    CLI::App& command,
    const std::string& flags,
    Enum& target,
    const std::vector<std::pair<std::string, std::type_identity_t<Enum>>>& choices,
    const std::string& help)
{
    std::string words;
    for (const auto& choice : choices)
        words += (words.empty() ? "" : "|") + choice.first;
    const auto read = [&target, choices, words](const std::string& text)
    {
        const auto choice = std::find_if(
            choices.begin(), choices.end(), [&](const auto& each) { return each.first == text; });
        if (choice == choices.end())
            return quote(text) + " is not one of " + words;
        target = choice->second;
        return std::string();
    };
    return addTextOption(command, flags, words, read, help);
}

/// Adds "-f", "-r" and "-c".
///
/// @param format  holds the defaults
/// @param what    is of this format, such as "raw input or tone"
void addFormatOptions(CLI::App& command, kit::StreamFormat& format, const std::string& what);

} // namespace vlx::tool
