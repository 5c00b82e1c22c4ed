#include "support/Child.hpp"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/Clock.hpp"
#include "support/Interrupt.hpp"

namespace vlx::bench
{
namespace
{

constexpr std::uint64_t OrderlyEndMs = 1000;
constexpr std::uint64_t EndPollNs = NsPerMs / 2;

void closeFD(int& fd)
{
    if (fd >= 0)
        close(fd);
    fd = -1;
}

// GStreamer's sink removes its shared memory only at an orderly end.
void removeSharedMemory(pid_t pid)
{
    const std::string prefix = "shmpipe." + std::to_string(pid) + ".";
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ignored))
    {
        if (entry.path().filename().string().starts_with(prefix))
            std::filesystem::remove(entry.path(), ignored);
    }
}

pid_t spawn(const std::vector<std::string>& command, int inputFD, int outputFD)
{
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, inputFD, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, outputFD, STDOUT_FILENO);
    pid_t pid = -1;
    if (posix_spawn(&pid, arguments[0], &actions, nullptr, arguments.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

} // namespace

Child::Child(const std::vector<std::string>& command)
{
    int input[2];
    int output[2];
    if (pipe2(input, O_CLOEXEC) != 0)
        return;
    if (pipe2(output, O_CLOEXEC) != 0)
    {
        closeFD(input[0]);
        closeFD(input[1]);
        return;
    }
    m_pid = spawn(command, input[0], output[1]);
    closeFD(input[0]);
    closeFD(output[1]);
    m_inputFD = input[1];
    m_outputFD = output[0];
}

Child::Child(Child&& other) noexcept
    : m_pid(std::exchange(other.m_pid, -1)),
      m_inputFD(std::exchange(other.m_inputFD, -1)),
      m_outputFD(std::exchange(other.m_outputFD, -1)),
      m_pending(std::move(other.m_pending))
{
}

Child::~Child()
{
    closeFD(m_inputFD);
    if (!waitForEnd(OrderlyEndMs))
        kill();
    closeFD(m_outputFD);
}

void Child::tell(const std::string& line) const
{
    const std::string whole = line + "\n";
    // A child that is gone shows in the next expect().
    [[maybe_unused]] const ssize_t written = write(m_inputFD, whole.data(), whole.size());
}

std::optional<std::string> Child::expect(const std::string& word, std::uint64_t timeoutMs)
{
    const std::uint64_t deadlineNs = nowNs() + timeoutMs * NsPerMs;
    while (true)
    {
        const std::size_t end = m_pending.find('\n');
        if (end == std::string::npos)
        {
            if (!readMore(deadlineNs))
                return std::nullopt;
            continue;
        }
        const std::string line = m_pending.substr(0, end);
        m_pending.erase(0, end + 1);
        const std::size_t space = line.find(' ');
        if (line.substr(0, space) == word)
            return space == std::string::npos ? "" : line.substr(space + 1);
    }
}

bool Child::readMore(std::uint64_t deadlineNs)
{
    const std::uint64_t now = nowNs();
    if (m_outputFD < 0 || now >= deadlineNs || isInterrupted())
        return false;
    pollfd entry{m_outputFD, POLLIN, 0};
    const int ready = poll(&entry, 1, static_cast<int>((deadlineNs - now) / NsPerMs + 1));
    if (ready <= 0)
        return ready == 0 || errno == EINTR; // the next call looks at clock and flag
    char buffer[4096];
    const ssize_t size = read(m_outputFD, buffer, sizeof buffer);
    if (size <= 0)
        return false;
    m_pending.append(buffer, static_cast<std::size_t>(size));
    return true;
}

void Child::kill()
{
    if (m_pid < 0)
        return;
    ::kill(m_pid, SIGKILL);
    while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR)
    {
    }
    removeSharedMemory(m_pid);
    m_pid = -1;
}

bool Child::waitForEnd(std::uint64_t timeoutMs)
{
    const std::uint64_t deadlineNs = nowNs() + timeoutMs * NsPerMs;
    while (m_pid >= 0)
    {
        if (waitpid(m_pid, nullptr, WNOHANG) == m_pid)
            m_pid = -1;
        else if (nowNs() > deadlineNs)
            return false;
        else
            sleepUntilNs(nowNs() + EndPollNs);
    }
    return true;
}

BusyProcess::BusyProcess() : m_pid(fork())
{
    if (m_pid != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    while (true)
        asm volatile("");
}

BusyProcess::~BusyProcess()
{
    if (m_pid <= 0)
        return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

} // namespace vlx::bench
