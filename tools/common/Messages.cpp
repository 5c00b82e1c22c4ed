#include "Messages.hpp"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>

#include <sys/ioctl.h>
#include <unistd.h>

#include "ExitCodes.hpp"

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

// A line that wraps could not be drawn anew.
std::size_t getWidth()
{
    constexpr std::size_t UsualWidth = 80;
    winsize size{};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col
                                                                             : UsualWidth;
}

} // unnamed namespace

void configureMessages(const MessageStyle& wanted)
{
    style = wanted;
    live = style.progress && !style.quiet && isLiveTerminal(STDERR_FILENO);
    colored = usesColor(style.color, STDERR_FILENO);
}

bool isLiveTerminal(int fd)
{
    const char* const terminal = std::getenv("TERM");
    return ::isatty(fd) == 1 && terminal != nullptr && std::string_view(terminal) != "dumb";
}

bool usesColor(ColorUse color, int fd)
{
    const char* const refusal = std::getenv("NO_COLOR");
    const bool refused = refusal != nullptr && *refusal != '\0';
    return color == ColorUse::Always || (color == ColorUse::Auto && !refused && isLiveTerminal(fd));
}

void flushOutput()
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        throw CommandFailure(ExitCode::Failed, "cannot write to standard output");
}

void printError(const std::string& text)
{
    const std::string line = style.command + ": " + text;
    printLine(colored ? Red + line + PlainColor + "\n" : line + "\n");
}

void printNotice(const std::string& text)
{
    if (!style.quiet)
        printLine(style.command + ": " + text + "\n");
}

void printLogLine(const std::string& line)
{
    printLine(line);
}

bool showsProgress()
{
    return live;
}

void printProgress(const std::string& text)
{
    if (!live)
        return;
    const std::lock_guard<std::mutex> lock(mutex);
    writeText(ClearLine + text.substr(0, getWidth() - 1));
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
