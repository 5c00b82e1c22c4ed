#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <vlx/VlxTypes.hpp>

#include "common/Poll.hpp"

namespace vlx::tool
{

class StopSignal;

/// Bytes of a file, a FIFO or standard input, read without hanging at a stop.
///
/// @thread one at a time
class ByteSource
{
public:
    /// Opens it.
    ///
    /// @param path      "-" for standard input
    /// @param deadline  until when somebody has to write to a FIFO; see wasStopped()
    /// @throws CommandFailure if it cannot be read, or at the deadline
    ByteSource(const std::string& path, const StopSignal& stop, const Deadline& deadline);
    ~ByteSource();

    ByteSource(const ByteSource&) = delete;
    ByteSource& operator=(const ByteSource&) = delete;

    /// @return how messages call it
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
    /// @param size       wanted; fewer come only at the end, at an error or at a stop
    /// @param isEnough   asked after each part whether more is needed
    /// @throws CommandFailure at the deadline
    template <class Predicate>
    std::string_view peek(std::size_t size, const Deadline& deadline, Predicate isEnough)
    {
        while (m_peeked.size() < size && !isEnough(getPeeked()) && peekMore(size, deadline))
            ;
        return getPeeked();
    }

    /// Reads until there are so many bytes; fewer only at the end, at an error or at a stop.
    ///
    /// @return bytes read
    std::size_t read(unsigned char* bytes, std::size_t size);

    /// Waits for input and reads what there is.
    ///
    /// @param otherFD  ends the wait when it has an error; -1: none
    /// @return 0 at the end, at an error, at a stop, or if the other descriptor ended the wait
    std::size_t readSome(unsigned char* bytes, std::size_t size, int otherFD = -1);

    bool rewind();

    /// @return one line about what went wrong in a read; empty if nothing did
    const std::string& getProblem() const
    {
        return m_problem;
    }

private:
    std::string_view getPeeked() const
    {
        return {reinterpret_cast<const char*>(m_peeked.data()), m_peeked.size()};
    }

    bool peekMore(std::size_t size, const Deadline& deadline);
    [[noreturn]] void failAtDeadline() const;

    const std::string m_name;
    const StopSignal& m_stop;
    int m_fd = -1;
    bool m_regular = false;
    bool m_stopped = false;
    Buffer m_peeked;
    std::string m_problem;
};

} // namespace vlx::tool
