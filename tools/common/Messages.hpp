#pragma once

#include <string>

namespace vlx::tool
{

enum class ColorUse
{
    Never,
    Always,
    /// Only where standard error is a terminal.
    Auto,
};

/// Sets how messages look from here on. All of them go to standard error, one line each.
///
/// @param command  stands before each message, such as "vlx send"
/// @param quiet    leaves out notices and the progress line
/// @param color    whether errors are marked in red
void configureMessages(const std::string& command, bool quiet, ColorUse color);

/// Says why the command fails or what it could not do.
/// @thread any
void printError(const std::string& text);

/// Says something worth knowing that is no failure.
/// @thread any
void printNotice(const std::string& text);

/// Replaces the line that shows the progress. Only on a terminal; any message pushes it aside.
/// @thread any
void printProgress(const std::string& text);

/// Leaves the last progress on the screen and goes to the next line.
/// @thread any
void finishProgress();

} // namespace vlx::tool
