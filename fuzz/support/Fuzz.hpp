#pragma once

// Code shared by the targets.

#include <algorithm>
#include <concepts>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vlx/VlxPayload.hpp>

#include "base/LittleEndian.hpp"
#include "base/OwnedDescriptor.hpp"

namespace vlx::fuzz
{

/// Stops the process if a target's check fails, in every build.
///
/// @param text  the condition that failed
inline void check(bool holds, const char* text)
{
    if (holds)
        return;
    std::fprintf(stderr, "\nDoes not hold: %s\n", text);
    std::abort();
}

/// Makes the library build each log line, down to TRACE, and discards them: inputs also reach the
/// code that builds the texts.
inline void silenceLog()
{
    [[maybe_unused]] static const bool done = []
    {
        log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox"));
        logger.setAdditivity(false);
        logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
        logger.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));
        return true;
    }();
}

/// Reads an input from the front, so that a target can take its steps from it. After the end, every
/// read returns 0 or an empty buffer.
class InputReader
{
public:
    InputReader(const std::uint8_t* data, std::size_t size) : m_rest(data, size) {}

    bool isEmpty() const
    {
        return m_rest.empty();
    }

    /// @return the next bytes as an integer in the machine's byte order
    template <std::unsigned_integral Integer = std::uint8_t>
    Integer take()
    {
        Integer value = 0;
        const ByteView bytes = takeBytes(sizeof(Integer));
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<unsigned char*>(&value));
        return value;
    }

    /// @return the next bytes, or fewer at the end
    ByteView takeBytes(std::size_t count)
    {
        const ByteView bytes = m_rest.subspan(0, std::min(count, m_rest.size()));
        m_rest = m_rest.subspan(bytes.size());
        return bytes;
    }

    /// @return the next bytes behind a length of one byte
    ByteView takeBlock()
    {
        return takeBytes(take());
    }

private:
    ByteView m_rest;
};

/// FourCC of the targets' own codec, "ScrM".
inline constexpr std::uint32_t OddFourcc = 0x4D726353;

/// Accepts codec headers of odd length only.
class OddDepayloader : public Depayloader
{
public:
    OddDepayloader() : Depayloader(OddFourcc) {}

    bool processCodecHeader(const ByteView& codecHeader) override
    {
        return codecHeader.size() % 2 == 1;
    }
};

/// @return whether the bytes begin with others
inline bool startsWith(const ByteView& bytes, const ByteView& beginning)
{
    return bytes.size() >= beginning.size() &&
           std::equal(beginning.begin(), beginning.end(), bytes.begin());
}

/// @return a message with its length in front
inline Buffer frame(const ByteView& message)
{
    Buffer bytes(sizeof(std::uint32_t) + message.size());
    writeLittleEndian(bytes, 0, static_cast<std::uint32_t>(message.size()));
    std::copy(message.begin(), message.end(), bytes.begin() + sizeof(std::uint32_t));
    return bytes;
}

/// The sender's end of a sidechannel connection.
class FramedPeer
{
public:
    /// Opens a connection and closes the previous one.
    ///
    /// @return the receiver's end, the lower descriptor of both; the caller closes it
    int open()
    {
        close();
        int ends[2];
        check(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "the system gives a socket pair");
        m_end = OwnedDescriptor(ends[1]);
        return ends[0];
    }

    /// Writes a number of the bytes, or as many as fit.
    ///
    /// @return number of bytes written
    std::size_t write(const ByteView& bytes, std::size_t count)
    {
        const ssize_t size = ::send(
            m_end.get(), bytes.data(), std::min(count, bytes.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
        return static_cast<std::size_t>(std::max<ssize_t>(size, 0));
    }

    /// Closes the sender's end; what has been written can still be read.
    void close()
    {
        m_end.close();
    }

private:
    OwnedDescriptor m_end;
};

} // namespace vlx::fuzz
