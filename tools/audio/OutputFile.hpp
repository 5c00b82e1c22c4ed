#pragma once

#include <cstdint>
#include <string>

namespace vlx::tool
{

/// The file behind an output: opened at the start, so that one that cannot be written is told at
/// once, but emptied only when there is something to record.
class OutputFile
{
public:
    /// @param path  "-" for standard output
    /// @throws CommandFailure if it cannot be opened for writing
    explicit OutputFile(const std::string& path);
    ~OutputFile();

    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    int getFD() const
    {
        return m_fd;
    }

    const std::string& getName() const
    {
        return m_name;
    }

    bool isRegular() const
    {
        return m_regular;
    }

    /// Empties a regular file.
    ///
    /// @return whether it worked; otherwise errno tells why not
    bool begin();

    /// @return bytes in the file
    std::uint64_t getSize() const;

    /// Cuts the file. A failure leaves it longer.
    void truncate(std::uint64_t size);

    /// Closes the file, and removes it if it was made here and never begun.
    ///
    /// @return whether it worked; otherwise errno tells why not
    bool close();

private:
    const std::string m_path;
    const std::string m_name; // for messages
    int m_fd = -1;
    bool m_regular = false;
    bool m_created = false;
    bool m_begun = false;
};

} // namespace vlx::tool
