#include "Messages.hpp"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "ExitCodes.hpp"
#include "Text.hpp"

namespace vlx::tool
{

namespace
{

// Set before any thread.
MessageStyle style;
bool colored = false;
bool live = false;

std::mutex mutex;
bool progressOnScreen = false; // guarded by mutex

constexpr const char* ClearLine = "\r\033[K";
constexpr const char* Red = "\033[31m";
constexpr const char* PlainColor = "\033[0m";

// A few times the longest part of one.
constexpr std::size_t MaxLineLength = 4 * kit::MaxPrintableLength;

void writeText(const std::string& text)
{
    std::fwrite(text.data(), 1, text.size(), stderr);
}

// One write per line keeps lines of several processes apart.
void printLine(const std::string& line)
{
    const std::lock_guard<std::mutex> lock(mutex);
    writeText((progressOnScreen ? ClearLine : "") + line);
    progressOnScreen = false;
}

} // unnamed namespace

void configureMessages(const MessageStyle& wanted)
{
    style = wanted;
    live = style.progress && !style.quiet && isLiveTerminal(STDERR_FILENO);
    colored = usesColor(STDERR_FILENO);
}

bool wasClosed(int fd)
{
    return (::fcntl(fd, F_GETFL) & O_PATH) != 0;
}

bool isLiveTerminal(int fd)
{
    const char* const terminal = std::getenv("TERM");
    return ::isatty(fd) == 1 && terminal != nullptr && std::string_view(terminal) != "dumb";
}

TerminalSize getTerminalSize(int fd)
{
    winsize size{};
    if (::ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return {};
    return {size.ws_col, size.ws_row};
}

bool usesColor(int fd)
{
    const char* const refusal = std::getenv("NO_COLOR");
    const bool refused = refusal != nullptr && *refusal != '\0';
    return style.color == ColorUse::Always ||
           (style.color == ColorUse::Auto && !refused && isLiveTerminal(fd));
}

void flushOutput()
{
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return;
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    const bool hasLostReader = ::poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0;
    throw hasLostReader ? CommandFailure(ExitCode::Done, "")
                        : CommandFailure(ExitCode::Failed, "cannot write to standard output");
}

void printError(const std::string& text)
{
    const std::string line = toPrintable(style.command + ": " + text, MaxLineLength);
    printLine(colored ? Red + line + PlainColor + "\n" : line + "\n");
}

void printNotice(const std::string& text)
{
    if (!style.quiet)
        printLine(toPrintable(style.command + ": " + text, MaxLineLength) + "\n");
}

void printLogLine(const std::string& line)
{
    printLine(toPrintable(line, MaxLineLength) + "\n");
}

bool showsProgress()
{
    return live;
}

void printProgress(const std::string& text)
{
    pollfd terminal{STDERR_FILENO, POLLOUT, 0};
    if (!live || ::poll(&terminal, 1, 0) != 1) // held by Ctrl-S: nothing should wait for that
        return;
    std::string line = toPrintable(text);
    // One that wraps could not be drawn anew.
    cutToWidth(line, getTerminalSize(STDERR_FILENO).width - 1);
    const std::lock_guard<std::mutex> lock(mutex);
    writeText(ClearLine + line);
    progressOnScreen = true;
}

void finishProgress(const std::string& text)
{
    if (!text.empty())
        printProgress(text);
    const std::lock_guard<std::mutex> lock(mutex);
    if (progressOnScreen)
        writeText("\n");
    progressOnScreen = false;
}

} // namespace vlx::tool
