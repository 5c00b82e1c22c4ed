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

// A longer one would be cut by the library, and then be another stream's name.
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
            quote(text) + " has 24 bits in four bytes, which no stream carries; S24_3LE and "
                          "S24_3BE are packed in three");
    throw std::invalid_argument("unknown format " + quote(text) + "; known are " + listFormats());
}

std::uint32_t readRate(const std::string& text)
{
    if (const auto rate = parseRate(text))
        return *rate;
    throw std::invalid_argument(
        quote(text) + " is no rate such as 44100, 44.1k or 48k, up to 2000000k");
}

std::chrono::nanoseconds readDuration(const std::string& text)
{
    const auto duration = parseDuration(text);
    if (!duration)
        throw std::invalid_argument(
            quote(text) + " is no duration such as 10ms, 1.5s, 1m30s or 10 (seconds)");
    if (duration->count() == 0)
        throw std::invalid_argument(quote(text) + " is too short: longer than nothing is needed");
    return *duration;
}

/// Has what a reader refuses said as the parser says it, which names the option of a check by itself.
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

std::uint64_t
readNumber(const std::string& text, const std::pair<std::uint64_t, std::uint64_t>& range)
{
    const auto number = parseNumber(text);
    if (!number || *number < range.first || *number > range.second)
        throw std::invalid_argument(
            quote(text) + " is no whole number from " + std::to_string(range.first) + " to " +
            std::to_string(range.second));
    return *number;
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
            "Move frames under real-time scheduling of this priority, 1 to 99 [" + priority +
                "], if this user may")
        ->each(withName("", read))
        ->option_text("[=PRIORITY]");
}

void addSenderUserOption(CLI::App& command, std::optional<uid_t>& user)
{
    const auto read = [&user](const std::string& text)
    {
        user = findUser(text);
        if (!user)
            throw std::invalid_argument("there is no user " + quote(text));
    };
    addTextOption(
        command, "--sender-user", "USER", read,
        "Join only a sender that runs as this user, a name or a number [any user]");
}

void addReportOption(CLI::App& command, std::string& path, const std::string& help)
{
    command.add_option("--report", path, help + " to this file, as JSON; - for standard output")
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
