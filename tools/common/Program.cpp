#include "Program.hpp"

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>

#include <CLI/CLI.hpp>

#include "Completions.hpp"
#include "ExitCodes.hpp"
#include "HelpFormatter.hpp"
#include "LogSetup.hpp"
#include "SignalThread.hpp"
#include "StandardStreams.hpp"
#include "StopSignal.hpp"
#include "Suggestion.hpp"

namespace vlx::tool
{

namespace
{

constexpr const char* Description =
    "Timestamped media frames from one process to many on one machine";
constexpr const char* ExitCodeHelp = "Exit codes: 0 done, 1 failed, 2 wrong usage, 3 time-out or "
                                     "no sender, 128+n stopped by signal n";

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

std::string askFor(const std::string& similar)
{
    return similar.empty() ? "; see --help" : "; " + similar + "?";
}

/// @return one line for wrong usage
std::string explainWrongUsage(const CLI::App& program, const CLI::ParseError& error)
{
    const CLI::App& command = findCommand(program);
    const auto subcommands = listSubcommands(command);
    std::string wrong;
    for (const std::string& word : command.remaining())
        wrong = wrong.empty() ? word : wrong;

    const bool isWordWrong =
        !wrong.empty() && (error.get_exit_code() == toInt(CLI::ExitCodes::ExtrasError) ||
                           error.get_exit_code() == toInt(CLI::ExitCodes::RequiredError));
    if (isWordWrong && wrong.starts_with("-"))
        return "no option " + wrong +
               askFor(findSimilar(wrong.substr(0, wrong.find('=')), listLongOptions(command)));
    if (isWordWrong && !subcommands.empty())
        return "no subcommand " + wrong + askFor(findSimilar(wrong, subcommands));
    if (isWordWrong && error.get_exit_code() == toInt(CLI::ExitCodes::ExtrasError))
        return "nothing more is expected behind the other words: " + wrong + "; see --help";
    if (!subcommands.empty() && error.get_exit_code() == toInt(CLI::ExitCodes::RequiredError))
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

int runSubcommand(const Subcommand& subcommand, const CLI::App& command)
{
    const CommonOptions& options = *subcommand.common;
    configureMessages(
        {getFullName(findCommand(command)), options.quiet, options.color,
         options.logConfig.empty()});
    try
    {
        configureLogging(options.quiet ? 0 : options.verbosity, options.logConfig);
        makeTempDirectoryAbsolute();
        StopSignal stop;
        const SignalThread signalThread(stop);
        const int code = subcommand.run(stop);
        flushOutput();
        return code;
    }
    catch (const CommandFailure& failure)
    {
        finishProgress();
        printError(failure.what());
        return toInt(failure.getCode());
    }
    catch (const std::exception& error)
    {
        finishProgress();
        printError(error.what());
        return toInt(ExitCode::Failed);
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
    program
        .add_option_function<std::string>(
            "--completions",
            [&program](const std::string& shell)
            {
                std::cout << makeCompletions(program, shell);
                throw CLI::Success();
            })
        ->group(""); // hidden: asked for by the build
    std::vector<CLI::App*> parsers;
    for (const Subcommand& subcommand : subcommands)
        parsers.push_back(subcommand.add(program));
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
            return runSubcommand(subcommands[i], *parsers[i]);
    }
    return toInt(ExitCode::Usage);
}

} // namespace vlx::tool
