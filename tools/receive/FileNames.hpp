#pragma once

#include <chrono>
#include <cstddef>
#include <set>
#include <string>

namespace vlx::tool
{

struct ReceiveOptions;

/// Names the files of a recording, so that none of an earlier recording is replaced unless that is
/// wanted.
class FileNames
{
public:
    explicit FileNames(const ReceiveOptions& options) : m_options(options) {}

    /// @param time  of the file's first frame
    /// @return path of the next file: with a number if there may be several or, for a pattern, if
    ///         the name is taken
    std::string getNext(std::chrono::system_clock::time_point time);

private:
    const ReceiveOptions& m_options;
    std::size_t m_number = 0;     // of the last numbered file
    std::set<std::string> m_used; // names that a pattern gave
};

/// @param time  shown as local time
/// @return a text as strftime() makes it from a pattern
std::string expandPattern(const std::string& pattern, std::chrono::system_clock::time_point time);

} // namespace vlx::tool
