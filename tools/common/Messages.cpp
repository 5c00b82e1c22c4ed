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

struct MessageState
{
    std::mutex mutex;
    // All guarded by mutex.
    MessageStyle style;
    bool colored = false;
    bool live = false;
    bool progressOnScreen = false;
};

MessageState& getState()
{
    static MessageState state;
    return state;
}

constexpr const char* ClearLine = "\r\033[K";
constexpr const char* Red = "\033[31m";
constexpr const char* PlainColor = "\033[0m";

void writeText(const std::string& text)
{
    std::fwrite(text.data(), 1, text.size(), stderr);
}

// The state is locked by the caller. One write per line keeps lines of several processes apart.
void printLine(MessageState& state, const std::string& line)
{
    writeText((state.progressOnScreen ? ClearLine : "") + line);
    state.progressOnScreen = false;
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

void configureMessages(const MessageStyle& style)
{
    MessageState& state = getState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.style = style;
    state.live = style.progress && !style.quiet && isLiveTerminal(STDERR_FILENO);
    state.colored = usesColor(style.color, STDERR_FILENO);
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
    MessageState& state = getState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    const std::string line = state.style.command + ": " + text;
    printLine(state, state.colored ? Red + line + PlainColor + "\n" : line + "\n");
}

void printNotice(const std::string& text)
{
    MessageState& state = getState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.style.quiet)
        printLine(state, state.style.command + ": " + text + "\n");
}

void printLogLine(const std::string& line)
{
    MessageState& state = getState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    printLine(state, line);
}

bool showsProgress()
{
    MessageState& state = getState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    return state.live;
}

void printProgress(const std::string& text)
{
    MessageState& state = getState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.live)
        return;
    writeText(ClearLine + text.substr(0, getWidth() - 1));
    state.progressOnScreen = true;
}

void finishProgress(const std::string& text)
{
    if (!text.empty())
        printProgress(text);
    MessageState& state = getState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (state.progressOnScreen)
        writeText("\n");
    state.progressOnScreen = false;
}

} // namespace vlx::tool
