#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include <vlx/VlxTypes.hpp>

#include "support/VlxTest.hpp"

/// Plain sockets that play the other end of a stream, and know nothing of the library. Everything
/// that waits has a deadline; what a peer opened it closes when it is destroyed.
namespace vlx::testing
{

/// Owns a descriptor.
class Descriptor
{
public:
    explicit Descriptor(int fd = -1);
    ~Descriptor();

    Descriptor(Descriptor&& other) noexcept;
    Descriptor& operator=(Descriptor&& other) noexcept;

    int get() const
    {
        return m_fd;
    }

    void close();

private:
    int m_fd;
};

/// @return the 4-byte length prefix of a sidechannel message, and the payload
Buffer makeSidechannelMessage(const Buffer& payload);

/// One end of a sidechannel connection.
class RawConnection
{
public:
    explicit RawConnection(Descriptor descriptor);

    bool isOpen() const
    {
        return m_descriptor.get() >= 0;
    }

    int getFD() const
    {
        return m_descriptor.get();
    }

    /// Sends bytes as they are.
    ///
    /// @param sliceSize  bytes per system call; 0: all in one
    /// @return whether all of them left; never raises SIGPIPE
    bool send(const Buffer& bytes, std::size_t sliceSize = 0);

    /// @return exactly so many bytes; fewer if the peer closed or the deadline passed
    Buffer readBytes(std::size_t size, std::chrono::milliseconds deadline = DefaultDeadline);

    /// @return the payload of the next length-prefixed message; nothing if it did not come whole
    std::optional<Buffer> readMessage(std::chrono::milliseconds deadline = DefaultDeadline);

    /// @return whether bytes, or the end of the stream, can be read without waiting
    bool hasInput() const;

    /// @return whether the peer closed before the deadline, with no byte left to read
    bool waitForClose(std::chrono::milliseconds deadline = DefaultDeadline);

    void close();

private:
    Descriptor m_descriptor;
};

/// Plays a receiver's sidechannel.
class RawSidechannelClient : public RawConnection
{
public:
    /// Connects to an abstract name; tries again until someone listens there or the deadline has
    /// passed.
    explicit RawSidechannelClient(
        const std::string& name,
        std::chrono::milliseconds deadline = DefaultDeadline);
};

/// Plays a sender's sidechannel.
class RawSidechannelServer
{
public:
    /// Listens on an abstract name.
    explicit RawSidechannelServer(const std::string& name);

    bool isListening() const
    {
        return m_listener.get() >= 0;
    }

    /// @return the next connection; not open if none came before the deadline
    RawConnection accept(std::chrono::milliseconds deadline = DefaultDeadline);

    void close();

private:
    Descriptor m_listener;
};

/// A plain nanomsg socket.
class RawNanomsg
{
public:
    ~RawNanomsg();

    RawNanomsg(const RawNanomsg&) = delete;
    RawNanomsg& operator=(const RawNanomsg&) = delete;

    bool bind(const std::string& uri);
    bool connect(const std::string& uri);

    /// @return the next message; nothing if none came before the deadline
    std::optional<Buffer> receive(std::chrono::milliseconds deadline = DefaultDeadline);

    /// @return whether the message could be handed over before the deadline
    bool send(const Buffer& message, std::chrono::milliseconds deadline = DefaultDeadline);

    /// @return whether so many peers were joined before the deadline
    bool waitForPeers(std::size_t number = 1);

    int getSocket() const
    {
        return m_socket;
    }

    void close();

protected:
    explicit RawNanomsg(int protocol);

private:
    int m_socket;
};

/// Subscribes to everything.
class RawNanomsgSub : public RawNanomsg
{
public:
    RawNanomsgSub();
};

class RawNanomsgPub : public RawNanomsg
{
public:
    RawNanomsgPub();
};

class RawNanomsgPull : public RawNanomsg
{
public:
    RawNanomsgPull();
};

class RawNanomsgPush : public RawNanomsg
{
public:
    RawNanomsgPush();
};

} // namespace vlx::testing
