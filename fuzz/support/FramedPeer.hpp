#pragma once

#include <algorithm>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

#include <vlx/VlxTypes.hpp>

#include "Check.hpp"

namespace vlx::fuzz
{

/// @return a message behind its length
inline Buffer frame(const ByteView& message)
{
    Buffer bytes = {0, 0, 0, 0};
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(message.size() >> (8 * i));
    bytes.insert(bytes.end(), message.begin(), message.end());
    return bytes;
}

/// The sender's end of a sidechannel connection.
class FramedPeer
{
public:
    ~FramedPeer()
    {
        close();
    }

    /// Makes a connection, in place of the one before.
    ///
    /// @return the receiver's end, the lower descriptor of both; the caller closes it
    int open()
    {
        close();
        int ends[2];
        check(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "the system gives a socket pair");
        m_peerFD = ends[1];
        return ends[0];
    }

    /// Writes so many of the bytes, or what there is room for.
    ///
    /// @return how many
    std::size_t write(const ByteView& bytes, std::size_t count)
    {
        const ssize_t size = ::send(
            m_peerFD, bytes.data(), std::min(count, bytes.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
        return static_cast<std::size_t>(std::max<ssize_t>(size, 0));
    }

    /// Closes the sender's end; what has been written can still be read.
    void close()
    {
        if (m_peerFD >= 0)
            ::close(std::exchange(m_peerFD, -1));
    }

private:
    int m_peerFD = -1;
};

} // namespace vlx::fuzz
