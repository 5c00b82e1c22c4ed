#pragma once

#include <cstdint>
#include <string>

#include <sys/types.h>

#include "AudioOutput.hpp"

namespace vlx::tool
{

/// The file behind an output: opened at the start, so that one that cannot be written is told at
/// once, but put in place only when there is something to record.
class OutputFile
{
public:
    /// @param path  "-" for standard output
    /// @throws CommandFailure if it cannot be opened for writing
    OutputFile(const std::string& path, const OutputWaits& waits);
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

    /// To be called before the first write.
    ///
    /// @return whether it worked; otherwise errno tells why not
    bool begin();

    /// Puts the file in place, once there is something in it. Does nothing when called again.
    ///
    /// @return whether it worked; otherwise errno tells why not
    bool commit();

    /// @return bytes in the file
    std::uint64_t getSize() const;

    /// Cuts the file. A failure leaves it longer.
    void truncate(std::uint64_t size);

    /// Closes the file, and removes it if it was made here and never put in place.
    ///
    /// @return whether it worked; otherwise errno tells why not
    bool close();

private:
    void openSpecial(const std::string& path, const OutputWaits& waits);
    bool openBeside(const std::string& path, bool exists, mode_t formerMode);
    void openInPlace(const std::string& path);

    const std::string m_name; // for messages
    std::string m_target;     // where the file belongs
    std::string m_written;    // where it is until it is committed; empty: at the target already
    int m_fd = -1;
    bool m_regular = false;
    bool m_created = false; // made here at the target, and not begun
};

/// @return whether a path is there and no regular file
bool isSpecialFile(const std::string& path);

} // namespace vlx::tool
