#include "tool/ToolProcess.hpp"

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
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

ToolProcess::ToolProcess(std::vector<std::string> arguments, const ToolSettings& settings)
    : m_input(
          settings.inputPath ? Descriptor(::open(settings.inputPath->c_str(), O_RDWR | O_CLOEXEC))
                             : makeMemoryFile(settings.input.value_or(""))),
      m_output(
          settings.outputPath ? Descriptor(::open(settings.outputPath->c_str(), O_RDWR | O_CLOEXEC))
                              : makeMemoryFile()),
      m_errors(makeMemoryFile())
{
    arguments.insert(arguments.begin(), VLX_TOOL_PATH);
    m_pid = ::fork();
    if (m_pid == 0)
        runChild(arguments, settings);
}

void ToolProcess::runChild(const std::vector<std::string>& arguments, const ToolSettings& settings)
    const
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing runs on when a test is aborted
    ::dup2(m_input.get(), STDIN_FILENO);
    ::dup2(m_output.get(), STDOUT_FILENO);
    ::dup2(m_errors.get(), STDERR_FILENO);
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
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
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
    if (!m_exitCode && waitFor([&] { return ::waitpid(m_pid, &status, WNOHANG) != 0; }, deadline))
        m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return m_exitCode;
}

std::optional<int> ToolProcess::stop()
{
    signal(SIGTERM);
    return wait();
}

std::string ToolProcess::getOutput() const
{
    return readAll(m_output.get());
}

std::string ToolProcess::getErrors() const
{
    return readAll(m_errors.get());
}

ToolText runTool(const std::vector<std::string>& arguments, int code, const ToolSettings& settings)
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
