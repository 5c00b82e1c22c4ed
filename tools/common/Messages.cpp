#include "Messages.hpp"

#include <cstdio>
#include <mutex>

#include <unistd.h>

namespace vlx::tool
{

namespace
{

struct MessageState
{
    std::mutex mutex;
    // All guarded by mutex.
    std::string command = "vlx";
    bool quiet = false;
    bool colored = false;
    bool terminal = false;
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

// The state is locked by the caller. One write per line keeps lines of several processes apart.
void printLine(MessageState& state, const std::string& text, const char* color)
{
    std::string line;
    if (state.progressOnScreen)
        line += ClearLine;
    state.progressOnScreen = false;
    if (state.colored)
        line += color;
    line += state.command + ": " + text;
    if (state.colored)
        line += PlainColor;
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

} // unnamed namespace

void configureMessages(const std::string& command, bool quiet, ColorUse color)
{
    MessageState& state = getState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.command = command;
    state.quiet = quiet;
    state.terminal = ::isatty(STDERR_FILENO) == 1;
    state.colored = color == ColorUse::Always || (color == ColorUse::Auto && state.terminal);
}

void printError(const std::string& text)
{
    MessageState& state = getState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    printLine(state, text, Red);
}

void printNotice(const std::string& text)
{
    MessageState& state = getState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.quiet)
        printLine(state, text, "");
}

void printProgress(const std::string& text)
{
    MessageState& state = getState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (state.quiet || !state.terminal)
        return;
    const std::string line = ClearLine + text;
    std::fwrite(line.data(), 1, line.size(), stderr);
    state.progressOnScreen = true;
}

void finishProgress()
{
    MessageState& state = getState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (state.progressOnScreen)
        std::fputc('\n', stderr);
    state.progressOnScreen = false;
}

} // namespace vlx::tool
