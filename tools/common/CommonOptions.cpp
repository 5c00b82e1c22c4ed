#include "CommonOptions.hpp"

#include <utility>

#include <CLI/CLI.hpp>

#include "Duration.hpp"

namespace vlx::tool
{

namespace
{

// A longer one would be cut by the library, and then be another stream's name.
constexpr std::size_t MaxNameLength = 107;

std::string checkName(const std::string& name)
{
    if (name.empty())
        return "the stream's name is empty";
    if (name.size() > MaxNameLength)
        return "the stream's name has " + std::to_string(name.size()) + " characters, at most " +
               std::to_string(MaxNameLength);
    return {};
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

audioUtils::PcmFormat readFormat(const std::string& text)
{
    const auto format = audioUtils::toPcmFormat(text);
    if (!format)
        throw CLI::ValidationError(
            "--format", "unknown format \"" + text + "\"; known are " + listFormats());
    return *format;
}

} // unnamed namespace

void addCommonOptions(CLI::App& command, CommonOptions& options)
{
    // Without "=VALUE": a number that is too large for it would leave the parser as an exception that
    // is none of its own.
    command
        .add_flag(
            "-v,--verbose", options.verbosity,
            "Print the library's log: once for INFO, twice DEBUG, three times TRACE")
        ->disable_flag_override();
    command.add_flag("-q,--quiet", options.quiet, "Print nothing but errors")
        ->disable_flag_override();
    ColorUse& color = options.color;
    addChoiceOption(
        command, "--color",
        {{"never", [&color] { color = ColorUse::Never; }},
         {"always", [&color] { color = ColorUse::Always; }},
         {"auto", [&color] { color = ColorUse::Auto; }}},
        "Mark errors in red [auto]");
}

void addSocketOption(CLI::App& command, std::string& name)
{
    command.add_option("-s,--socket", name, "Name of the stream")
        ->required()
        ->type_name("NAME")
        ->check(CLI::Validator(checkName, ""));
}

CLI::Option* addDurationOption(
    CLI::App& command,
    const std::string& flags,
    std::optional<std::chrono::nanoseconds>& target,
    const std::string& help)
{
    const auto read = [&target, flags](const std::string& text)
    {
        target = parseDuration(text);
        if (!target || target->count() == 0)
            throw CLI::ValidationError(
                flags.substr(flags.rfind(',') + 1),
                "\"" + text + "\" is no duration such as 10ms, 1.5s or 2min");
    };
    return command.add_option_function<std::string>(flags, read, help)->type_name("TIME");
}

CLI::Option* addChoiceOption(
    CLI::App& command,
    const std::string& flags,
    Choices choices,
    const std::string& help)
{
    std::string words;
    for (const auto& choice : choices)
        words += (words.empty() ? "" : ", ") + choice.first;
    const auto choose = [flags, words, choices = std::move(choices)](const std::string& text)
    {
        for (const auto& [word, action] : choices)
        {
            if (word == text)
                return action();
        }
        throw CLI::ValidationError(flags, "\"" + text + "\" is none of " + words);
    };
    return command.add_option_function<std::string>(flags, choose, help + ": " + words)
        ->type_name("WORD");
}

void addFormatOptions(CLI::App& command, kit::StreamFormat& format)
{
    command
        .add_option_function<std::string>(
            "-f,--format",
            [&format](const std::string& text) { format.sampleFormat = readFormat(text); },
            "Sample format of raw input or tone: " + listFormats() + " [S16LE]")
        ->type_name("FORMAT");
    command.add_option("-r,--rate", format.rate, "Samples per second of raw input or tone [48000]")
        ->type_name("HZ")
        ->check(CLI::Range(1U, 2'000'000'000U).description(""));
    command.add_option("-c,--channels", format.channels, "Channels of raw input or tone [2]")
        ->type_name("N")
        ->check(CLI::Range(1U, 255U).description(""));
}

} // namespace vlx::tool
