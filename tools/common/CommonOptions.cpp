#include "CommonOptions.hpp"

#include <CLI/CLI.hpp>

#include <vlxkit/Users.hpp>

#include "Duration.hpp"

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

std::string readFormat(const std::string& text, audioUtils::PcmFormat& format)
{
    const auto known = audioUtils::toPcmFormat(text);
    if (!known)
        return audioUtils::isPaddedFormat(text)
                   ? quote(text) + " stores 24 bits in four bytes, which streams do not carry; "
                                   "S24_3LE and S24_3BE use three"
                   : "unknown format " + quote(text) + ": expected one of " + listFormats();
    format = *known;
    return {};
}

std::string readRate(const std::string& text, std::uint32_t& target)
{
    const auto rate = parseRate(text);
    if (!rate)
        return "invalid rate " + quote(text) + ": expected for example 44100, 44.1k or 48kHz";
    target = *rate;
    return {};
}

std::string readDuration(const std::string& text, OptionalDuration& target)
{
    const auto duration = parseDuration(text);
    if (!duration)
        return "invalid duration " + quote(text) +
               ": expected for example 10ms, 1.5s, 1m30s or 10 (seconds)";
    if (duration->count() == 0)
        return quote(text) + " is too short: a duration must be above 0";
    target = duration;
    return {};
}

} // unnamed namespace

CLI::Option* addTextOption(
    CLI::App& command,
    const std::string& flags,
    const std::string& typeName,
    const TextReader& read,
    const std::string& help)
{
    return command
        .add_option_function<std::string>(
            flags, [](const std::string&) {}, help)
        ->type_name(typeName)
        ->check(CLI::Validator(read, ""));
}

void addCommonOptions(CLI::App& command, CommonOptions& options)
{
    // Without "=VALUE": CLI11 reports a number out of range by a foreign exception.
    command
        .add_flag(
            "-v,--verbose", options.verbosity,
            "Print the library's log: once for INFO, twice for DEBUG, three times for TRACE")
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

std::string checkNumber(const std::string& text, std::uint64_t least, std::uint64_t most)
{
    const auto number = parseNumber(text);
    if (number && *number >= least && *number <= most)
        return {};
    return quote(text) + " is not a whole number from " + std::to_string(least) + " to " +
           std::to_string(most);
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
        command, flags, "TIME",
        [&target](const std::string& text) { return readDuration(text, target); }, help);
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
        realTime.use = kit::RealTimeUse::Try;
        return readNumber(text, 1, MaxPriority, realTime.priority);
    };
    // A flag takes its value behind "=" alone, never the next word.
    command
        .add_flag_function(
            "--realtime{" + priority + "}", [](std::int64_t) {},
            "Request real-time scheduling with this priority, 1 to 99 [" + priority +
                "]; has no effect if not permitted")
        ->check(CLI::Validator(read, ""))
        ->option_text("[=PRIORITY]");
}

void addSenderUserOption(CLI::App& command, std::optional<uid_t>& user)
{
    const auto read = [&user](const std::string& text)
    {
        user = kit::findUser(text);
        return user ? std::string() : "unknown user " + quote(text);
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
        [&format](const std::string& text) { return readFormat(text, format.sampleFormat); },
        "Sample format of " + what + ": " + listFormats() + " [S16LE]");
    addTextOption(
        command, "-r,--rate", "HZ",
        [&format](const std::string& text) { return readRate(text, format.rate); },
        "Samples per second of " + what + " [48k]");
    addNumberOption(
        command, "-c,--channels", format.channels, {1, MaxChannels},
        "Channels of " + what + " [2]");
}

} // namespace vlx::tool
