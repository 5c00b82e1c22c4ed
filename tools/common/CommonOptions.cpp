#include "CommonOptions.hpp"

#include <stdexcept>

#include <CLI/CLI.hpp>

#include "Duration.hpp"
#include "Numbers.hpp"
#include "Users.hpp"

namespace vlx::tool
{

namespace
{

// The library truncates a longer name, and it would then belong to another stream.
constexpr std::size_t MaxNameLength = 107;

constexpr std::uint32_t MaxChannels = 255;
constexpr std::uint64_t MaxPriority = 99;

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
    if (const auto known = audioUtils::toPcmFormat(text))
        return *known;
    if (audioUtils::isPaddedFormat(text))
        throw std::invalid_argument(
            quote(text) + " stores 24 bits in four bytes, which streams do not carry; "
                          "S24_3LE and S24_3BE use three");
    throw std::invalid_argument(
        "unknown format " + quote(text) + ": expected one of " + listFormats());
}

std::uint32_t readRate(const std::string& text)
{
    if (const auto rate = parseRate(text))
        return *rate;
    throw std::invalid_argument(
        "invalid rate " + quote(text) + ": expected for example 44100, 44.1k or 48kHz");
}

std::chrono::nanoseconds readDuration(const std::string& text)
{
    const auto duration = parseDuration(text);
    if (!duration)
        throw std::invalid_argument(
            "invalid duration " + quote(text) +
            ": expected for example 10ms, 1.5s, 1m30s or 10 (seconds)");
    if (duration->count() == 0)
        throw std::invalid_argument(quote(text) + " is too short: a duration must be above 0");
    return *duration;
}

/// Converts a reader's exception to CLI11's error, with the option's name.
std::function<void(const std::string&)> withName(const std::string& flags, const TextReader& read)
{
    return [read, name = flags.substr(flags.rfind(',') + 1)](const std::string& text)
    {
        try
        {
            read(text);
        }
        catch (const std::invalid_argument& refusal)
        {
            throw name.empty() ? CLI::ValidationError(refusal.what())
                               : CLI::ValidationError(name, refusal.what());
        }
    };
}

} // unnamed namespace

CLI::Option* addTextOption(
    CLI::App& command,
    const std::string& flags,
    const std::string& typeName,
    const TextReader& read,
    const std::string& help)
{
    return command.add_option_function<std::string>(flags, withName(flags, read), help)
        ->type_name(typeName);
}

void addCommonOptions(CLI::App& command, CommonOptions& options)
{
    // Without "=VALUE": CLI11 reports a number out of range by a foreign exception.
    command
        .add_flag(
            "-v,--verbose", options.verbosity,
            "Print the library's log: once for INFO and connections, twice for DEBUG, three times "
            "for TRACE")
        ->disable_flag_override();
    command.add_flag("-q,--quiet", options.quiet, "Print only errors")->disable_flag_override();
    addChoiceOption<ColorUse>(
        command, "--color", options.color,
        {{"never", ColorUse::Never}, {"always", ColorUse::Always}, {"auto", ColorUse::Auto}},
        "Use colours [auto: on a terminal, unless NO_COLOR is set]");
    command
        .add_option(
            "--log-config", options.logConfig,
            "Configure logging by this property file of log4cplus, instead of -v")
        ->type_name("FILE");
}

std::uint64_t
readNumber(const std::string& text, const std::pair<std::uint64_t, std::uint64_t>& range)
{
    const auto number = parseNumber(text);
    if (!number || *number < range.first || *number > range.second)
        throw std::invalid_argument(
            quote(text) + " is not a whole number from " + std::to_string(range.first) + " to " +
            std::to_string(range.second));
    return *number;
}

std::string checkStreamName(const std::string& name)
{
    if (name.empty())
        return "the stream's name is empty";
    if (name.size() > MaxNameLength)
        return "the stream's name has " + std::to_string(name.size()) + " bytes; the maximum is " +
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
    return addTextOption(
        command, flags, "TIME", [&target](const std::string& text) { target = readDuration(text); },
        help);
}

CLI::Option* addTimeoutOption(CLI::App& command, OptionalDuration& target, const std::string& help)
{
    return addDurationOption(command, "--timeout", target, help);
}

void addRealTimeOption(CLI::App& command, kit::RealTime& realTime)
{
    const std::string priority = std::to_string(realTime.priority);
    const auto read = [&realTime](const std::string& text)
    {
        realTime.priority = static_cast<int>(readNumber(text, {1, MaxPriority}));
        realTime.use = kit::RealTimeUse::Try;
    };
    // A flag takes its value behind "=" alone, never the next word.
    command
        .add_flag_function(
            "--realtime{" + priority + "}", [](std::int64_t) {},
            "Request real-time scheduling with this priority, 1 to 99 [" + priority +
                "]; has no effect if not permitted")
        ->each(withName("", read))
        ->option_text("[=PRIORITY]");
}

void addSenderUserOption(CLI::App& command, std::optional<uid_t>& user)
{
    const auto read = [&user](const std::string& text)
    {
        user = findUser(text);
        if (!user)
            throw std::invalid_argument("unknown user " + quote(text));
    };
    addTextOption(
        command, "--sender-user", "USER", read,
        "Join only a sender that runs as this user, by name or number [any user]");
}

void addReportOption(CLI::App& command, std::string& path, const std::string& help)
{
    command.add_option("--report", path, help + " to this file; - is standard output")
        ->type_name("FILE");
}

CLI::Option* addPortOption(
    CLI::App& command,
    const std::string& flags,
    std::uint16_t& port,
    const std::string& help)
{
    return addNumberOption(command, flags, port, {1, 65535}, help);
}

void addFormatOptions(CLI::App& command, kit::StreamFormat& format, const std::string& what)
{
    addTextOption(
        command, "-f,--format", "FORMAT",
        [&format](const std::string& text) { format.sampleFormat = readFormat(text); },
        "Sample format of " + what + ": " + listFormats() + " [S16LE]");
    addTextOption(
        command, "-r,--rate", "HZ",
        [&format](const std::string& text) { format.rate = readRate(text); },
        "Samples per second of " + what + " [48k]");
    addNumberOption(
        command, "-c,--channels", format.channels, {1, MaxChannels},
        "Channels of " + what + " [2]");
}

} // namespace vlx::tool
