#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace vlx::bench
{

/// A process that is spoken to by lines on its standard input and output. Never outlives its object.
class Child
{
public:
    /// Starts a program; whether that worked shows in the first expect().
    explicit Child(const std::vector<std::string>& command);

    /// Lets the process end by itself for a moment, then kills it.
    ~Child();

    Child(Child&& other) noexcept;
    Child& operator=(Child&&) = delete;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void tell(const std::string& line) const;

    /// Waits for a line with this first word; skips others.
    /// @return the rest of that line; nothing when the time is up, the process has ended, or the
    ///         user has interrupted
    std::optional<std::string> expect(const std::string& word, std::uint64_t timeoutMs);

    /// Ends the process with SIGKILL and waits for its end.
    void kill();

    pid_t getPid() const
    {
        return m_pid;
    }

private:
    bool readMore(std::uint64_t deadlineNs);
    bool waitForEnd(std::uint64_t timeoutMs);

    pid_t m_pid = -1;
    int m_inputFD = -1;  // the child's standard input
    int m_outputFD = -1; // the child's standard output
    std::string m_pending;
};

/// A process that keeps one processor busy while the object lives.
class BusyProcess
{
public:
    BusyProcess();
    ~BusyProcess();

    BusyProcess(const BusyProcess&) = delete;
    BusyProcess& operator=(const BusyProcess&) = delete;

private:
    pid_t m_pid;
};

} // namespace vlx::bench
