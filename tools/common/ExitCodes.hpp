#pragma once

#include <stdexcept>
#include <string>

namespace vlx::tool
{

/// Exit codes that every subcommand keeps to. A stop by signal n is 128 + n.
enum class ExitCode : int
{
    Done = 0,
    Failed = 1,
    Usage = 2,
    /// A timeout has passed, or there was no sender.
    TimedOut = 3,
};

template <class Code>
constexpr int toInt(Code code)
{
    return static_cast<int>(code);
}

constexpr int toExitCode(int signalNumber)
{
    return 128 + signalNumber;
}

/// Ends a subcommand: an exit code and one line for standard error; no line if the text is empty.
class CommandFailure : public std::runtime_error
{
public:
    CommandFailure(ExitCode code, const std::string& line) : std::runtime_error(line), m_code(code)
    {
    }

    ExitCode getCode() const
    {
        return m_code;
    }

private:
    ExitCode m_code;
};

} // namespace vlx::tool
