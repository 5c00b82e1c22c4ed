#include "tool/ToolProcess.hpp"

#include <cstdlib>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace vlx::testing
{

namespace
{

constexpr int ExitCodeOfFailedStart = 120; // none that the tool has

std::string readAll(int fd)
{
    std::string text;
    char chunk[4096];
    ssize_t count = 0;
    while ((count = ::pread(fd, chunk, sizeof(chunk), static_cast<off_t>(text.size()))) > 0)
        text.append(chunk, static_cast<std::size_t>(count));
    return text;
}

Descriptor makeMemoryFile(const std::string& content = {})
{
    Descriptor file(::memfd_create("vlx-test", MFD_CLOEXEC));
    EXPECT_EQ(
        ::write(file.get(), content.data(), content.size()), static_cast<ssize_t>(content.size()));
    ::lseek(file.get(), 0, SEEK_SET);
    return file;
}

} // namespace

ToolProcess::ToolProcess(Arguments arguments, const ToolSettings& settings)
    : m_input(
          settings.inputPath ? Descriptor(::open(settings.inputPath->c_str(), O_RDWR | O_CLOEXEC))
                             : makeMemoryFile(settings.input)),
      m_output(
          settings.outputPath ? Descriptor(::open(settings.outputPath->c_str(), O_RDWR | O_CLOEXEC))
                              : makeMemoryFile()),
      m_errors(makeMemoryFile())
{
    arguments.insert(arguments.begin(), VLX_TOOL_PATH);
    const winsize size{24, 80, 0, 0};
    int terminalFD = -1;
    m_pid = settings.onTerminal ? ::forkpty(&terminalFD, nullptr, nullptr, &size) : ::fork();
    if (m_pid == 0)
        runChild(std::move(arguments), settings);
    m_terminal = Descriptor(terminalFD);
}

void ToolProcess::runChild(Arguments arguments, const ToolSettings& settings) const
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing runs on when a test is aborted
    if (settings.onTerminal)
    {
        // An echoed ^C could fall into the middle of a picture's line.
        termios modes{};
        ::tcgetattr(STDIN_FILENO, &modes);
        modes.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &modes);
        ::setenv("TERM", "xterm", 1);
        ::unsetenv("NO_COLOR");
    }
    else
    {
        ::dup2(m_input.get(), STDIN_FILENO);
        ::dup2(m_output.get(), STDOUT_FILENO);
        ::dup2(m_errors.get(), STDERR_FILENO);
    }
    for (const int fd : settings.closed)
        ::close(fd);
    if (settings.tempDirectory)
        ::setenv("TMPDIR", settings.tempDirectory->c_str(), 1);
    if (settings.maxFileSize)
    {
        const rlimit limit{*settings.maxFileSize, *settings.maxFileSize};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    if (settings.asUser && (::setgid(*settings.asUser) != 0 || ::setuid(*settings.asUser) != 0))
        ::_exit(ExitCodeOfFailedStart);

    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(ExitCodeOfFailedStart);
}

ToolProcess::~ToolProcess()
{
    if (m_exitCode || m_pid <= 0)
        return;
    EXPECT_EQ(stop(), 128 + SIGTERM) << getErrors();
    if (!m_exitCode)
        kill();
}

void ToolProcess::signal(int number) const
{
    ::kill(m_pid, number);
}

void ToolProcess::suspend() const
{
    signal(SIGSTOP);
    siginfo_t info = {}; // its threads may run on for a moment
    ::waitid(P_PID, static_cast<id_t>(m_pid), &info, WSTOPPED);
}

void ToolProcess::kill()
{
    signal(SIGKILL);
    EXPECT_EQ(wait(), 128 + SIGKILL);
}

std::optional<int> ToolProcess::wait(std::chrono::milliseconds deadline)
{
    int status = 0;
    const auto hasEnded = [&]
    {
        drain();
        return ::waitpid(m_pid, &status, WNOHANG) != 0;
    };
    if (!m_exitCode && waitFor(hasEnded, deadline))
        m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return m_exitCode;
}

std::optional<int> ToolProcess::stop()
{
    signal(SIGTERM);
    return wait();
}

/// Makes room on the terminal: a full one would hold the tool up.
void ToolProcess::drain() const
{
    char chunk[4096];
    ssize_t count = 0;
    pollfd terminal{m_terminal.get(), POLLIN, 0};
    while (::poll(&terminal, 1, 0) == 1 &&
           (count = ::read(m_terminal.get(), chunk, sizeof(chunk))) > 0)
        EXPECT_EQ(::write(m_output.get(), chunk, static_cast<std::size_t>(count)), count);
}

std::string ToolProcess::getOutput() const
{
    drain();
    return readAll(m_output.get());
}

std::string ToolProcess::getErrors() const
{
    return readAll(m_errors.get());
}

void ToolProcess::expectOutput(const std::string& text)
{
    std::size_t place = 0;
    EXPECT_TRUE(
        waitFor([&] { return (place = getOutput().find(text, m_seen)) != std::string::npos; }))
        << text << "\n"
        << getOutput().substr(m_seen);
    m_seen = std::min(place, getOutput().size());
}

void ToolProcess::pressCtrlC() const
{
    EXPECT_EQ(::write(m_terminal.get(), "\x03", 1), 1);
}

ToolText runTool(const Arguments& arguments, int code, const ToolSettings& settings)
{
    ToolProcess process(arguments, settings);
    EXPECT_EQ(process.wait(), code) << process.getErrors();
    return {process.getOutput(), process.getErrors()};
}

std::size_t countLines(const std::string& text)
{
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

} // namespace vlx::testing
