#pragma once

#include <cstddef>
#include <cstdint>

#include <vlx/VlxTypes.hpp>

namespace vlx::fuzz
{

/// The sender's end of a sidechannel connection, and a model of the receiver's reader.
///
/// Whatever is written, no announced length exceeds 65,535 bytes: the upper half of each length is
/// written as 0. The reader itself knows no limit.
class Sidechannel
{
public:
    /// What one call of the reader gives.
    enum class Result
    {
        Incomplete = 0,
        Complete = 1,
        Gone = 2,
    };

    Sidechannel() = default;
    ~Sidechannel();

    Sidechannel(const Sidechannel&) = delete;
    Sidechannel& operator=(const Sidechannel&) = delete;

    /// Makes a connection, in place of the one before.
    ///
    /// @return the receiver's end; the caller closes it
    int open();

    void write(const ByteView& bytes);

    /// Writes a message behind a length of its own.
    void writeMessage(const ByteView& message, std::size_t announcedLength);

    /// Closes the sender's end; what has been written can still be read.
    void close();

    bool isOpen() const
    {
        return m_peerFD >= 0;
    }

    /// @return bytes that have been written and not been read
    std::size_t getPendingBytes() const
    {
        return m_written.size() - m_readPosition;
    }

    /// @return whether a call of the reader ends at once: there is something to read, or the end
    bool isReadable() const
    {
        return getPendingBytes() > 0 || !isOpen();
    }

    /// Reads what one call of the reader should read.
    Result read();

    /// @return the message that was completed last
    const Buffer& getMessage() const
    {
        return m_message;
    }

private:
    /// Where in the messages a byte lies that is passed over.
    struct Framing
    {
        std::size_t prefixBytes = 0;
        std::size_t announced = 0;
        std::size_t payloadBytes = 0;

        bool isInPrefix() const
        {
            return prefixBytes < PrefixBytes;
        }

        std::uint8_t pass(std::uint8_t byte);
    };

    static constexpr std::size_t PrefixBytes = 4;

    int m_peerFD = -1;
    Buffer m_written; // since the connection was made
    std::size_t m_readPosition = 0;
    Framing m_writing;
    Framing m_reading;
    Buffer m_message;
};

} // namespace vlx::fuzz
