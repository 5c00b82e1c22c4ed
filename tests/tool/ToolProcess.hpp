#pragma once

#include <sys/types.h>

#include "support/RawPeers.hpp"

namespace vlx::testing
{

using Arguments = std::vector<std::string>;

/// Settings of a run of the tool.
struct ToolSettings
{
    std::string input = {};                        ///< of standard input
    std::optional<std::string> inputPath = {};     ///< of standard input, instead
    std::optional<std::string> outputPath = {};    ///< of standard output; not set: kept
    std::optional<std::string> tempDirectory = {}; ///< for TMPDIR; not set: the test's
    std::optional<std::size_t> maxFileSize = {};   ///< bytes
    std::optional<uid_t> asUser = {};              ///< needs root
    std::vector<int> closed = {};                  ///< of descriptors 0 to 2
    bool onTerminal = false;                       ///< of its own, of 80 columns and 24 lines
};

/// One run of the tool. If it still runs at the end, it is stopped and must exit cleanly.
class ToolProcess
{
public:
    explicit ToolProcess(Arguments arguments, const ToolSettings& settings = {});
    ~ToolProcess();

    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    void signal(int number) const;

    /// Stops the process until SIGCONT.
    void suspend() const;

    /// Kills it, as a crash would.
    void kill();

    /// @return the exit code as a shell sees it, so 128 + n after signal n; nothing at the deadline
    std::optional<int> wait(std::chrono::milliseconds deadline = DefaultDeadline);

    /// Asks for a clean stop.
    ///
    /// @return as wait()
    std::optional<int> stop();

    /// @return what was written to standard output, or to the terminal, so far
    std::string getOutput() const;

    /// @return what was written to standard error so far
    std::string getErrors() const;

    /// Waits until the output has a text, at or after the one that was waited for before.
    void expectOutput(const std::string& text);

    /// On a terminal.
    void pressCtrlC() const;

private:
    [[noreturn]] void runChild(Arguments arguments, const ToolSettings& settings) const;
    void drain() const;

    // Files in memory: nothing is left in the test's directory.
    Descriptor m_input;
    Descriptor m_output;
    Descriptor m_errors;
    Descriptor m_terminal;
    std::size_t m_seen = 0; // where the text began that was waited for
    pid_t m_pid = -1;
    std::optional<int> m_exitCode;
};

/// Output of a run of the tool.
struct ToolText
{
    std::string output; ///< to standard output
    std::string errors; ///< to standard error
};

/// Runs the tool to its end, and expects this exit code.
ToolText runTool(const Arguments& arguments, int code = 0, const ToolSettings& settings = {});

/// @return the number of lines in a text
std::size_t countLines(const std::string& text);

} // namespace vlx::testing
