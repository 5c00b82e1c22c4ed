#pragma once

#include <string>

namespace vlx::bench
{

/// A private directory for sockets, in TMPDIR or /tmp, removed with everything in it at the end.
/// TMPDIR should be short: socket names have a limit.
class RunDirectory
{
public:
    RunDirectory();
    ~RunDirectory();

    RunDirectory(const RunDirectory&) = delete;
    RunDirectory& operator=(const RunDirectory&) = delete;

    /// @return empty if the directory could not be made
    const std::string& getPath() const
    {
        return m_path;
    }

private:
    std::string m_path;
};

} // namespace vlx::bench
