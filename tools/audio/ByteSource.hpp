#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <vlx/VlxTypes.hpp>

#include "AudioInput.hpp"
#include "common/Poll.hpp"

namespace vlx::tool
{

class StopSignal;

/// @throws CommandFailure, always
[[noreturn]] void failToRead(const std::string& name, const std::string& reason);

/// Bytes of a file, a FIFO or standard input, read without hanging at a stop.
///
/// @thread one at a time
class ByteSource
{
public:
    /// Opens it.
    ///
    /// @param path      "-" for standard input
    /// @param deadline  until when a FIFO needs a writer; see wasStopped()
    /// @throws CommandFailure if it cannot be read, or at the deadline
    ByteSource(const std::string& path, const StopSignal& stop, const Deadline& deadline);
    ~ByteSource();

    ByteSource(const ByteSource&) = delete;
    ByteSource& operator=(const ByteSource&) = delete;

    /// @return its name in messages
    const std::string& getName() const
    {
        return m_name;
    }

    /// @return whether a read was ended by a stop, or the opening was
    bool wasStopped() const
    {
        return m_stopped;
    }

    /// @return whether it is a regular file: complete, and to be read again
    bool isFile() const
    {
        return m_regular;
    }

    /// @return bytes of a regular file
    std::size_t getSize() const;

    /// Looks at the first bytes, which the next read gives.
    ///
    /// @param size  wanted; fewer come only at the end, at an error or at a stop
    /// @return all that have been looked at; valid until the next call
    /// @throws CommandFailure at the deadline
    std::string_view peek(std::size_t size, const Deadline& deadline = {});

    /// Looks whether it begins as an audio file does.
    ///
    /// @return "WAV", "FLAC", "Ogg"...; empty if it is not known as an audio file
    /// @throws CommandFailure at the deadline
    std::string peekFileKind(const Deadline& deadline = {});

    /// Sets how many bytes takeIn() reads ahead: what a pipe holds and as much more.
    void setReadAhead(std::size_t bytes);

    /// Waits for more bytes and reads them ahead, so that the writer of a pipe is not held up.
    InputArrival takeIn(const Deadline& deadline);

    /// @return bytes that have been read ahead
    std::size_t getNumWaiting() const
    {
        return m_peeked.size();
    }

    /// Reads until there are so many bytes; fewer only at the end, at an error or at a stop.
    ///
    /// @return bytes read
    std::size_t read(unsigned char* bytes, std::size_t size);

    /// @param place  to go on from, bytes from the beginning
    bool rewind(std::uint64_t place = 0);

    /// @return one line about what went wrong in a read; empty if nothing did
    const std::string& getProblem() const
    {
        return m_problem;
    }

private:
    PollResult readMore(std::size_t size, const Deadline& deadline);
    [[noreturn]] void failAtDeadline() const;

    const std::string m_name;
    const StopSignal& m_stop;
    int m_fd = -1;
    bool m_regular = false;
    bool m_stopped = false;
    bool m_ended = false;
    std::size_t m_readAhead = 0;
    Buffer m_peeked; // read ahead
    std::string m_problem;
};

} // namespace vlx::tool
