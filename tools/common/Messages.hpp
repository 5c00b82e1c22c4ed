#pragma once

#include <cstddef>
#include <string>

namespace vlx::tool
{

enum class ColorUse
{
    Never,
    Always,
    /// Only where the stream is a terminal that knows colours, and NO_COLOR is not set.
    Auto,
};

/// How messages look.
struct MessageStyle
{
    std::string command = "vlx";      ///< stands before each message, such as "vlx send"
    bool quiet = false;               ///< leaves out notices and the progress line
    ColorUse color = ColorUse::Never; ///< whether errors are marked in red
    bool progress = true;             ///< false: never shown, not even on a terminal
};

/// Sets how messages look from here on. All of them go to standard error, one line
/// each, made printable: a message may contain names and paths as they came.
///
/// @pre no thread runs yet that prints
void configureMessages(const MessageStyle& wanted);

/// @param fd  of standard input, output or error
/// @return whether the parent had closed it; see runProgram()
bool wasClosed(int fd);

/// @return whether a stream is a terminal on which a line can be drawn anew
bool isLiveTerminal(int fd);

struct TerminalSize
{
    std::size_t width = 80;
    std::size_t height = 24;
};

/// @return columns and lines of a terminal; the usual ones if it does not tell
TerminalSize getTerminalSize(int fd);

/// @return whether colours are to be used on a stream
bool usesColor(int fd);

/// Flushes standard output.
///
/// @throws CommandFailure if that fails, on a full disk for instance; with ExitCode::Done and no
///         text if the reader of a pipe has closed it, as "head" does
void flushOutput();

/// Prints why the command fails or what it could not do.
/// @thread any
void printError(const std::string& text);

/// Prints something worth knowing that is not a failure.
/// @thread any
void printNotice(const std::string& text);

/// Prints a line of the library's log.
/// @param line  without its end
/// @thread any
void printLogLine(const std::string& line);

/// @return whether the progress is shown
bool showsProgress();

/// Replaces the line that shows the progress. Only on a terminal; any message pushes it aside.
/// @thread any
void printProgress(const std::string& text);

/// Leaves the last progress on the screen and goes to the next line.
///
/// @param text  how far it came in the end; empty: as printed last
/// @thread any
void finishProgress(const std::string& text = {});

} // namespace vlx::tool
