#include "Program.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <utility>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <log4cplus/configurator.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Logging.hpp>

#include "CommonOptions.hpp"
#include "Completions.hpp"
#include "ExitCodes.hpp"
#include "StopSignal.hpp"

namespace vlx::tool
{

namespace
{

constexpr const char* Description =
    "Timestamped media frames from one process to many on one machine";
constexpr const char* ExitCodeHelp = "Exit codes: 0 done, 1 failed, 2 wrong usage, 3 timeout or "
                                     "no sender, 128+n stopped by signal n";

constexpr std::size_t Width = 80;
constexpr std::size_t HelpColumn = 28;

/// @param first  what stands before the text, on a line of its own if it is too long
std::string wrap(const std::string& text, std::size_t column = 0, const std::string& first = {})
{
    std::string result;
    std::string line = first;
    if (column > 0 && line.size() + 2 > column)
        result = std::exchange(line, {}) + '\n';
    line.resize(column, ' ');
    std::istringstream words(text);
    for (std::string word; words >> word;)
    {
        if (line.size() > column && line.size() + 1 + word.size() > Width)
            result += std::exchange(line, std::string(column, ' ')) + '\n';
        line += (line.size() > column ? " " : "") + word;
    }
    return result + line + '\n';
}

/// Writes help that fits 80 columns and breaks between words only.
class HelpFormatter : public CLI::Formatter
{
public:
    std::string make_description(const CLI::App* app) const override
    {
        return wrap(app->get_description());
    }

    std::string make_footer(const CLI::App* app) const override
    {
        return app->get_footer().empty() ? std::string() : wrap(app->get_footer());
    }

    std::string make_subcommand(const CLI::App* command) const override
    {
        return wrap(command->get_description(), HelpColumn, "  " + command->get_name());
    }

    std::string make_option(const CLI::Option* option, bool isPositional) const override
    {
        std::string name = option->get_name(isPositional, !isPositional);
        name.resize(
            std::min(name.find('{'), name.size())); // the value of a flag that is given none
        const std::size_t comma = name.find(',');
        if (comma != std::string::npos)
            name.insert(comma + 1, " ");
        else if (!isPositional)
            name.insert(0, "    "); // where others have a letter
        if (!option->get_option_text().empty())
            name += option->get_option_text();
        else if (option->get_type_size() != 0 && !option->get_type_name().empty())
            name += ' ' + option->get_type_name();
        return wrap(option->get_description(), HelpColumn, "  " + name);
    }
};

std::string getFullName(const CLI::App& command)
{
    const CLI::App* const parent = command.get_parent();
    return (parent == nullptr ? std::string() : getFullName(*parent) + " ") + command.get_name();
}

/// @return the innermost subcommand that the command line names
const CLI::App& findCommand(const CLI::App& program)
{
    const auto commands = program.get_subcommands();
    return commands.empty() ? program : findCommand(*commands.front());
}

/// @return one line for wrong usage
std::string explainWrongUsage(const CLI::App& program, const CLI::ParseError& error)
{
    const CLI::App& command = findCommand(program);
    auto words = command.remaining();
    if (words.empty())
        words = program.remaining();
    // An unknown word is the cause, whatever the parser misses then.
    if (!words.empty() && words.front() != "--")
        return std::string("unknown ") +
               (words.front().starts_with("-")             ? "option "
                : command.get_require_subcommand_min() > 0 ? "subcommand "
                                                           : "argument ") +
               words.front() + "; see --help";
    return std::string(error.what()) + "; see --help";
}

/// Prints help and version as asked for, and wrong usage in one line.
int explainParseEnd(const CLI::App& program, const CLI::ParseError& error)
{
    if (error.get_exit_code() == toInt(ExitCode::Done))
        return program.exit(error);
    configureMessages({getFullName(findCommand(program)), false, ColorUse::Auto});
    printError(explainWrongUsage(program, error));
    return toInt(ExitCode::Usage);
}

/// @return prints the log on standard error while it lives; null if the user's configuration counts
std::unique_ptr<kit::LogListener> configureLogging(const CommonOptions& options)
{
    if (!options.logConfig.empty())
    {
        if (::access(options.logConfig.c_str(), R_OK) != 0)
            throw CommandFailure(
                ExitCode::Failed, "cannot read " + quote(options.logConfig) + ": " +
                                      miscUtils::strerror_r_safe(errno));
        log4cplus::PropertyConfigurator::doConfigure(options.logConfig);
        return nullptr;
    }
    using enum kit::LogLevel;
    constexpr std::array Levels = {Error, Info, Debug, Trace};
    const auto verbosity = static_cast<std::size_t>(options.quiet ? 0 : options.verbosity);
    // Without -v the tool's own messages name the cause. The log still needs a receiver: log4cplus
    // complains about a missing one.
    return std::make_unique<kit::LogListener>(
        Levels.at(std::min(verbosity, Levels.size() - 1)),
        [verbosity](const kit::LogLine& line)
        {
            if (verbosity > 0)
                printLogLine(toText(line));
        });
}

/// Fills the place of each standard stream that the parent has closed. Otherwise the next file or
/// socket that is opened would get its number, and messages or samples would land in it. See
/// wasClosed().
void guardStandardStreams()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    {
        // Gets this very number: all lower ones are open. Reads and writes fail. Kept by a child,
        // as the stream itself.
        if (::fcntl(fd, F_GETFD) == -1)
            ::open("/dev/null", O_PATH); // NOLINT(android-cloexec-open)
    }
}

int runSubcommand(
    const Subcommand& subcommand,
    const CLI::App& command,
    const CommonOptions& options)
{
    configureMessages(
        {getFullName(findCommand(command)), options.quiet, options.color,
         options.logConfig.empty()});
    try
    {
        const auto log = configureLogging(options);
        StopSignal stop;
        const int code = subcommand.run(stop);
        flushOutput();
        const bool wasStopped = code == toInt(ExitCode::Done) && stop.isRequested();
        return wasStopped ? toExitCode(stop.getSignalNumber()) : code;
    }
    catch (const std::exception& error)
    {
        finishProgress();
        if (*error.what() != '\0')
            printError(error.what());
        const auto* const failure = dynamic_cast<const CommandFailure*>(&error);
        return toInt(failure != nullptr ? failure->getCode() : ExitCode::Failed);
    }
}

} // unnamed namespace

int runProgram(int argc, char** argv, const std::vector<Subcommand>& subcommands)
{
    guardStandardStreams();
    blockStopSignals();

    CLI::App program(Description, "vlx");
    program.formatter(std::make_shared<HelpFormatter>());
    program.set_version_flag("--version", "vlx " VLX_VERSION, "Print the version");
    program.set_help_flag("-h,--help", "Print this help");
    program.footer(ExitCodeHelp);
    program.require_subcommand(1);
    CommonOptions common;
    addCommonOptions(program, common);
    std::vector<CLI::App*> parsers;
    for (const Subcommand& subcommand : subcommands)
    {
        parsers.push_back(subcommand.add(program));
        auto ends = parsers.back()->get_subcommands(std::function<bool(CLI::App*)>());
        if (ends.empty())
            ends = {parsers.back()};
        for (CLI::App* const end : ends)
            addCommonOptions(*end, common);
    }
    if (argc > 1 && argv[1] == std::string("--complete"))
        return printCompletions(program, {argv + 2, argv + argc}) ? 1 : 0;
    try
    {
        program.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        return explainParseEnd(program, error);
    }

    for (std::size_t i = 0; i < parsers.size(); ++i)
    {
        if (parsers[i]->parsed())
            return runSubcommand(subcommands[i], *parsers[i], common);
    }
    return toInt(ExitCode::Usage);
}

} // namespace vlx::tool
