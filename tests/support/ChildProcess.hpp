#pragma once

#include <sys/types.h>

#include "support/RawPeers.hpp"

namespace vlx::testing
{

/// A program in a process of its own, which is killed at the end.
class ChildProcess
{
public:
    /// @param arguments  the first is the program's path
    explicit ChildProcess(std::vector<std::string> arguments);
    ~ChildProcess();

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t getPid() const
    {
        return m_pid;
    }

    /// @return the next line that it prints, without its end
    std::string readLine();

    void signal(int number) const;

    /// Waits until it has ended.
    void kill();

    /// Ends its standard input, and waits until it has ended.
    void finish();

private:
    void reap();

    pid_t m_pid = -1;
    Descriptor m_input;
    Descriptor m_output;
};

/// The program SenderProcess: somebody else's sender, of frames of 100 bytes that are all the low
/// byte of their timestamp.
class SenderProcess : public ChildProcess
{
public:
    SenderProcess(const std::string& name, NanomsgProtocol protocol);
    ~SenderProcess();

    const std::string& getSocketFile() const
    {
        return m_socketFile;
    }

    std::string getDirectory() const;

private:
    const std::string m_socketFile;
};

} // namespace vlx::testing
