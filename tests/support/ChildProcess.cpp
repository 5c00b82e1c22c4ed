#include "support/ChildProcess.hpp"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vlx::testing
{

ChildProcess::ChildProcess(std::vector<std::string> arguments)
{
    std::pair<Descriptor, Descriptor> input = makePipe();
    std::pair<Descriptor, Descriptor> output = makePipe();
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    m_pid = ::fork();
    if (m_pid == 0)
    {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing runs on when a test is aborted
        ::dup2(input.first.get(), STDIN_FILENO);
        ::dup2(output.second.get(), STDOUT_FILENO);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    m_input = std::move(input.second);
    m_output = std::move(output.first);
}

ChildProcess::~ChildProcess()
{
    kill();
}

std::string ChildProcess::readLine()
{
    std::string line;
    for (char c = 0; ::read(m_output.get(), &c, 1) == 1 && c != '\n';)
        line += c;
    return line;
}

void ChildProcess::signal(int number) const
{
    if (m_pid > 0)
        ::kill(m_pid, number);
}

void ChildProcess::kill()
{
    signal(SIGKILL);
    reap();
}

void ChildProcess::finish()
{
    m_input.close();
    reap();
}

void ChildProcess::reap()
{
    if (m_pid > 0)
        ::waitpid(std::exchange(m_pid, -1), nullptr, 0);
}

SenderProcess::SenderProcess(const std::string& name, NanomsgProtocol protocol)
    : ChildProcess({VLX_SENDER_PROCESS, name, toString(protocol)}), m_socketFile(readLine())
{
}

SenderProcess::~SenderProcess()
{
    finish();
}

std::string SenderProcess::getDirectory() const
{
    return std::filesystem::path(m_socketFile).parent_path();
}

} // namespace vlx::testing
