#include "CommonOptions.hpp"

#include <algorithm>
#include <memory>

#include <CLI/CLI.hpp>

#include "Duration.hpp"
#include "Numbers.hpp"

namespace vlx::tool
{

namespace
{

// A longer one would be cut by the library, and then be another stream's name.
constexpr std::size_t MaxNameLength = 107;

constexpr std::uint64_t MaxChannels = 255;
constexpr std::uint64_t MaxPriority = 99;

std::string quote(const std::string& text)
{
    return "\"" + text + "\"";
}

std::string listFormats()
{
    std::string list;
    for (std::size_t i = 0; i < audioUtils::NumPcmFormats; ++i)
    {
        list += i == 0 ? "" : ", ";
        list += audioUtils::toString(static_cast<audioUtils::PcmFormat>(i));
    }
    return list;
}

std::string readFormat(const std::string& text, kit::StreamFormat& format)
{
    if (const auto known = audioUtils::toPcmFormat(text))
    {
        format.sampleFormat = *known;
        return {};
    }
    if (audioUtils::isPaddedFormat(text))
        return quote(text) + " has 24 bits in four bytes, which no stream carries; S24_3LE and "
                             "S24_3BE are packed in three";
    return "unknown format " + quote(text) + "; known are " + listFormats();
}

std::string readPriority(const std::string& text, kit::RealTime& realTime)
{
    const auto priority = parseNumber(text);
    if (!priority || *priority < 1 || *priority > MaxPriority)
        return quote(text) + " is no priority from 1 to " + std::to_string(MaxPriority);
    realTime.use = kit::RealTimeUse::Try;
    realTime.priority = static_cast<int>(*priority);
    return {};
}

} // unnamed namespace

CLI::Option* addTextOption(
    CLI::App& command,
    const std::string& flags,
    const std::string& typeName,
    const std::function<std::string(const std::string&)>& read,
    const std::string& help)
{
    const auto readOrRefuse = [read, flags](const std::string& text)
    {
        const std::string problem = read(text);
        if (!problem.empty())
            throw CLI::ValidationError(flags.substr(flags.rfind(',') + 1), problem);
    };
    return command.add_option_function<std::string>(flags, readOrRefuse, help)->type_name(typeName);
}

void addCommonOptions(CLI::App& command, CommonOptions& options)
{
    // Without "=VALUE": a number that is too large for it would leave the parser as an exception that
    // is none of its own.
    command
        .add_flag(
            "-v,--verbose", options.verbosity,
            "Print the library's log: once for INFO and for who joins and leaves, twice DEBUG, "
            "three times TRACE")
        ->disable_flag_override();
    command.add_flag("-q,--quiet", options.quiet, "Print nothing but errors")
        ->disable_flag_override();
    addChoiceOption<ColorUse>(
        command, "--color", options.color,
        {{"never", ColorUse::Never}, {"always", ColorUse::Always}, {"auto", ColorUse::Auto}},
        "Use colours [auto: on a terminal, unless NO_COLOR is set]");
    command
        .add_option(
            "--log-config", options.logConfig,
            "Log as this property file of log4cplus says, instead of -v")
        ->type_name("FILE");
}

std::string checkStreamName(const std::string& name)
{
    if (name.empty())
        return "the stream's name is empty";
    if (name.size() > MaxNameLength)
        return "the stream's name has " + std::to_string(name.size()) + " characters, at most " +
               std::to_string(MaxNameLength);
    return {};
}

void addSocketOption(CLI::App& command, std::string& name)
{
    command.add_option("-s,--socket", name, "Name of the stream")
        ->required()
        ->type_name("NAME")
        ->check(CLI::Validator(checkStreamName, ""));
}

CLI::Option* addDurationOption(
    CLI::App& command,
    const std::string& flags,
    OptionalDuration& target,
    const std::string& help)
{
    const auto read = [&target](const std::string& text) -> std::string
    {
        target = parseDuration(text);
        if (!target)
            return quote(text) + " is no duration such as 10ms, 1.5s, 1m30s or 10 (seconds)";
        return target->count() == 0 ? quote(text) + " is too short: longer than nothing is needed"
                                    : std::string();
    };
    return addTextOption(command, flags, "TIME", read, help);
}

CLI::Option* addTimeoutOption(CLI::App& command, OptionalDuration& target, const std::string& help)
{
    return addDurationOption(command, "--timeout", target, help);
}

void addRealTimeOption(CLI::App& command, kit::RealTime& realTime)
{
    const std::string name = "--realtime";
    const std::string defaultPriority = std::to_string(realTime.priority);
    // A flag takes its value behind "=" alone, never the next word.
    const auto value = std::make_shared<std::string>();
    command
        .add_flag(
            name + "{" + defaultPriority + "}", *value,
            "Move frames under real-time scheduling of this priority, 1 to 99 [" + defaultPriority +
                "], if this user may")
        ->each(
            [&realTime, name, value](const std::string& text)
            {
                const std::string problem = readPriority(text, realTime);
                if (!problem.empty())
                    throw CLI::ValidationError(name, problem);
            })
        ->option_text("[=PRIORITY]");
}

void addReportOption(CLI::App& command, std::string& path, const std::string& help)
{
    command.add_option("--report", path, help + " to this file, as JSON; - for standard output")
        ->type_name("FILE");
}

CLI::Option* addNumberOption(
    CLI::App& command,
    const std::string& flags,
    std::pair<std::uint64_t, std::uint64_t> range,
    const std::function<void(std::uint64_t)>& store,
    const std::string& help)
{
    const auto read = [range, store](const std::string& text) -> std::string
    {
        const auto number = parseNumber(text);
        if (!number || *number < range.first || *number > range.second)
            return quote(text) + " is no whole number from " + std::to_string(range.first) +
                   " to " + std::to_string(range.second);
        store(*number);
        return {};
    };
    return addTextOption(command, flags, "N", read, help);
}

CLI::Option* addChoiceOption(
    CLI::App& command,
    const std::string& flags,
    const std::vector<std::string>& words,
    const std::function<void(std::size_t)>& choose,
    const std::string& help)
{
    const auto read = [words, choose](const std::string& text) -> std::string
    {
        const auto word = std::find(words.begin(), words.end(), text);
        if (word == words.end())
            return quote(text) + " is none of " + CLI::detail::join(words, ", ");
        choose(static_cast<std::size_t>(word - words.begin()));
        return {};
    };
    return addTextOption(command, flags, CLI::detail::join(words, "|"), read, help);
}

void addFormatOptions(CLI::App& command, kit::StreamFormat& format, const std::string& what)
{
    addTextOption(
        command, "-f,--format", "FORMAT",
        [&format](const std::string& text) { return readFormat(text, format); },
        "Sample format of " + what + ": " + listFormats() + " [S16LE]");
    addTextOption(
        command, "-r,--rate", "HZ",
        [&format](const std::string& text)
        {
            const auto rate = parseRate(text);
            format.rate = rate.value_or(format.rate);
            return rate ? std::string()
                        : quote(text) + " is no rate such as 44100, 44.1k or 48k, up to 2000000k";
        },
        "Samples per second of " + what + " [48k]");
    addNumberOption<std::uint32_t>(
        command, "-c,--channels", format.channels, {1, MaxChannels},
        "Channels of " + what + " [2]");
}

} // namespace vlx::tool
