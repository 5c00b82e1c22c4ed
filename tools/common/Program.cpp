#include "Program.hpp"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>

#include <CLI/CLI.hpp>

#include "CommonOptions.hpp"
#include "Completions.hpp"
#include "ExitCodes.hpp"
#include "HelpFormatter.hpp"
#include "LogSetup.hpp"
#include "StandardStreams.hpp"
#include "StopSignal.hpp"

namespace vlx::tool
{

namespace
{

constexpr const char* Description =
    "Timestamped media frames from one process to many on one machine";
constexpr const char* ExitCodeHelp = "Exit codes: 0 done, 1 failed, 2 wrong usage, 3 timeout or "
                                     "no sender, 128+n stopped by signal n";

constexpr std::size_t MaxWordLength = 40; // far longer than any that is known

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

std::vector<std::string> listSubcommands(const CLI::App& command)
{
    std::vector<std::string> names;
    for (const CLI::App* const each :
         command.get_subcommands(std::function<bool(const CLI::App*)>()))
        names.push_back(each->get_name());
    return names;
}

std::vector<std::string> listLongOptions(const CLI::App& command)
{
    std::vector<std::string> names;
    for (const CLI::Option* const option : command.get_options())
    {
        for (const std::string& name : option->get_lnames())
            names.push_back("--" + name);
    }
    return names;
}

/// @return number of typing errors between two words: letters added, missing or replaced, or
///         neighbours swapped
std::size_t countSlips(const std::string& one, const std::string& other)
{
    // Of the first i letters of one word and the first k of the other.
    std::vector<std::vector<std::size_t>> slips(
        one.size() + 1, std::vector<std::size_t>(other.size() + 1));
    for (std::size_t i = 0; i <= one.size(); ++i)
    {
        for (std::size_t k = 0; k <= other.size(); ++k)
        {
            std::size_t& fewest = slips[i][k];
            if (i == 0 || k == 0)
            {
                fewest = i + k;
                continue;
            }
            fewest = std::min(
                {slips[i - 1][k] + 1, slips[i][k - 1] + 1,
                 slips[i - 1][k - 1] + (one[i - 1] == other[k - 1] ? 0 : 1)});
            if (i > 1 && k > 1 && one[i - 1] == other[k - 2] && one[i - 2] == other[k - 1])
                fewest = std::min(fewest, slips[i - 2][k - 2] + 1);
        }
    }
    return slips.back().back();
}

/// @return "; ", and the known word that a wrong one is probably meant to be, or where to look
std::string askFor(const std::string& wrong, const std::vector<std::string>& known)
{
    std::string best = "see --help";
    std::size_t fewest = 3; // from here on it is another word
    for (const std::string& word : known)
    {
        // Every word can be made of a short one.
        const std::size_t slips = countSlips(wrong.substr(0, MaxWordLength), word);
        if (slips < fewest && 2 * slips < word.size())
        {
            best = "did you mean " + word + "?";
            fewest = slips;
        }
    }
    return "; " + best;
}

/// @return one line for wrong usage
std::string explainWrongUsage(const CLI::App& program, const CLI::ParseError& error)
{
    const CLI::App& command = findCommand(program);
    const auto subcommands = listSubcommands(command);
    auto words = command.remaining();
    if (words.empty())
        words = program.remaining();
    // Behind a "--" there are no options and no subcommands.
    const auto marker = std::find(words.begin(), words.end(), "--");
    const bool isBehindMarker = !words.empty() && marker == words.begin();
    if (marker != words.end())
        words.erase(marker);
    const std::string wrong = words.empty() ? "" : words.front();
    const bool isTooMuch = error.get_exit_code() == toInt(CLI::ExitCodes::ExtrasError);
    const bool isMissing = error.get_exit_code() == toInt(CLI::ExitCodes::RequiredError);
    const bool isMisplaced = (isTooMuch || isMissing) && !wrong.empty() && !isBehindMarker;

    if (isMisplaced && wrong.starts_with("-"))
        return "unknown option " + wrong +
               askFor(wrong.substr(0, wrong.find('=')), listLongOptions(command));
    if (isMisplaced && !subcommands.empty())
        return "unknown subcommand " + wrong + askFor(wrong, subcommands);
    if (isTooMuch && !wrong.empty())
        return "unexpected argument " + wrong + "; see --help";
    if (isMissing && !subcommands.empty())
        return "a subcommand is required: " + CLI::detail::join(subcommands, ", ") + "; see --help";
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

/// Others must find the directory from wherever they run.
void makeTempDirectoryAbsolute()
{
    const char* const directory = std::getenv("TMPDIR");
    if (directory == nullptr || *directory == '\0' || *directory == '/')
        return;
    std::error_code error;
    const auto path = std::filesystem::absolute(directory, error);
    if (!error)
        ::setenv("TMPDIR", path.c_str(), 1);
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
        const auto log = configureLogging(options.quiet ? 0 : options.verbosity, options.logConfig);
        makeTempDirectoryAbsolute();
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
