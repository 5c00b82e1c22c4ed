#pragma once

#include <nanomsg/pipeline.h>
#include <nanomsg/pubsub.h>

#include <vlx/VlxTypes.hpp>

#include "base/OwnedDescriptor.hpp"
#include "support/VlxTest.hpp"

/// Plain sockets that play the other end of a stream, and know nothing of the library. Everything
/// that waits has a deadline; what a peer opened it closes when it is destroyed.
namespace vlx::testing
{

using Descriptor = OwnedDescriptor;

/// @return both ends of a pipe, read end first; of a pair of connected sockets
std::pair<Descriptor, Descriptor> makePipe();
std::pair<Descriptor, Descriptor> makeSocketPair();

/// @return the 4-byte length prefix of a sidechannel message, and the payload
Buffer makeSidechannelMessage(const Buffer& payload);

/// @return whether something can be read without waiting
bool isReadable(int fd);

/// One end of a sidechannel connection.
class RawConnection
{
public:
    explicit RawConnection(Descriptor descriptor = Descriptor())
        : m_descriptor(std::move(descriptor))
    {
    }

    /// Connects to an abstract name, as a receiver does; tries again until someone listens there or
    /// the deadline has passed.
    explicit RawConnection(
        const std::string& name,
        std::chrono::milliseconds deadline = DefaultDeadline);

    bool isOpen() const
    {
        return m_descriptor.isOpen();
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

    /// @return whether the peer closed before the deadline, with no byte left to read
    bool waitForClose(std::chrono::milliseconds deadline = DefaultDeadline);

    void close()
    {
        m_descriptor.close();
    }

private:
    Descriptor m_descriptor;
};

/// Plays a sender's sidechannel.
class RawSidechannelServer
{
public:
    /// Listens on an abstract name.
    explicit RawSidechannelServer(const std::string& name, int backlog = 32);

    bool isListening() const
    {
        return m_listener.isOpen();
    }

    int getFD() const
    {
        return m_listener.get();
    }

    /// @return the next connection; not open if none came before the deadline
    RawConnection accept(std::chrono::milliseconds deadline = DefaultDeadline);

    void close()
    {
        m_listener.close();
    }

private:
    Descriptor m_listener;
};

/// A plain nanomsg socket.
class RawNanomsg
{
public:
    /// @param protocol  NN_PUB, NN_SUB (of everything), NN_PUSH or NN_PULL
    explicit RawNanomsg(int protocol);
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

private:
    int m_socket;
};

/// A connection that takes as long to close as its other end takes nothing, half a minute at most.
class LingeringConnection
{
public:
    LingeringConnection();

    int getNear() const
    {
        return m_near.get();
    }

    /// Leaves the near end to those that it has been passed to.
    void closeNear()
    {
        m_near.close();
    }

private:
    Descriptor m_near;
    Descriptor m_far;
};

/// Passes a descriptor along with one byte over a Unix-domain socket.
///
/// @param flags  of sendmsg()
/// @return whether it was sent
bool passDescriptor(int socketFD, int passedFD, int flags = 0);

} // namespace vlx::testing
