#include "Sidechannel.hpp"

#include <algorithm>
#include <bit>

#include <sys/socket.h>
#include <unistd.h>

#include "Check.hpp"

namespace vlx::fuzz
{

// Lengths stand in the host's order; here the first byte is the lowest.
static_assert(std::endian::native == std::endian::little);

Sidechannel::~Sidechannel()
{
    close();
}

int Sidechannel::open()
{
    close();
    m_written.clear();
    m_readPosition = 0;
    m_writing = {};
    m_reading = {};

    int ends[2];
    check(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "the system gives a socket pair");
    // The receiver gets the lower one: left open, it shows as the lowest that is not free any more.
    m_peerFD = ends[1];
    return ends[0];
}

std::uint8_t Sidechannel::Framing::pass(std::uint8_t byte)
{
    if (isInPrefix())
    {
        const bool isUpperHalf = prefixBytes >= PrefixBytes / 2;
        if (isUpperHalf)
            byte = 0;
        announced |= std::size_t{byte} << (8 * prefixBytes);
        ++prefixBytes;
        return byte;
    }
    ++payloadBytes;
    if (payloadBytes >= announced)
        *this = {};
    return byte;
}

void Sidechannel::write(const ByteView& bytes)
{
    if (!isOpen() || bytes.empty())
        return;
    Buffer bounded;
    Framing framing = m_writing;
    for (const unsigned char byte : bytes)
        bounded.push_back(framing.pass(byte));

    // Not all is taken when the socket is full, and nothing when the receiver has closed its end.
    const ssize_t numBytes =
        ::send(m_peerFD, bounded.data(), bounded.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    bounded.resize(static_cast<std::size_t>(std::max<ssize_t>(numBytes, 0)));
    for (const std::uint8_t byte : bounded)
        m_written.push_back(m_writing.pass(byte));
}

void Sidechannel::writeMessage(const ByteView& message, std::size_t announcedLength)
{
    Buffer bytes;
    for (std::size_t i = 0; i < PrefixBytes; ++i)
        bytes.push_back(static_cast<std::uint8_t>(announcedLength >> (8 * i)));
    bytes.insert(bytes.end(), message.begin(), message.end());
    write(bytes);
}

void Sidechannel::close()
{
    if (isOpen())
        ::close(m_peerFD);
    m_peerFD = -1;
}

Sidechannel::Result Sidechannel::read()
{
    const std::size_t wanted = m_reading.isInPrefix()
                                   ? PrefixBytes - m_reading.prefixBytes
                                   : m_reading.announced - m_reading.payloadBytes;
    const std::size_t numBytes = std::min(wanted, getPendingBytes());
    if (numBytes == 0)
        return Result::Gone;

    const bool isPayload = !m_reading.isInPrefix();
    if (isPayload && m_reading.payloadBytes == 0)
        m_message.clear();
    for (std::size_t i = 0; i < numBytes; ++i)
    {
        const std::uint8_t byte = m_written[m_readPosition++];
        m_reading.pass(byte);
        if (isPayload)
            m_message.push_back(byte);
    }
    return isPayload && m_reading.isInPrefix() && m_reading.prefixBytes == 0 ? Result::Complete
                                                                             : Result::Incomplete;
}

} // namespace vlx::fuzz
