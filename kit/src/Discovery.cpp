#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include <AbstractName.hpp>
#include <Fourcc.hpp>
#include <LittleEndian.hpp>
#include <SenderDirectory.hpp>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vlxkit/Discovery.hpp>

#include <vlx/VlxPayload.hpp>

#include "SenderSearch.hpp"

namespace vlx::kit
{

namespace
{

using Clock = std::chrono::steady_clock;

// Real messages have a few hundred bytes. A stranger may announce anything.
constexpr std::uint32_t MaxMessageBytes = 1 << 20;

// The kernel passes no more at once.
constexpr std::size_t MaxPassedDescriptors = 253;

constexpr mode_t PermissionBits = 07777;

constexpr std::size_t DrainBytes = 4096;

constexpr std::size_t SequenceInfoHeaderBytes = 8;

constexpr std::string_view IpcScheme = "ipc://";

constexpr std::size_t MaxSocketPathLength = sizeof(sockaddr_un::sun_path) - 1;

/// Closes what came in with SCM_RIGHTS. A TCP socket that lingers would hold the close for as long
/// as its sender likes.
void closePassedDescriptors(msghdr& message)
{
    constexpr linger NoLinger{0, 0};
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header))
    {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
            continue;
        for (std::size_t offset = CMSG_LEN(0); offset < header->cmsg_len; offset += sizeof(int))
        {
            int fd = -1;
            std::memcpy(&fd, reinterpret_cast<const char*>(header) + offset, sizeof(fd));
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &NoLinger, sizeof(NoLinger));
            ::close(fd);
        }
    }
}

/// A socket that never waits, neither for what the other side sends nor for its descriptors.
class Socket
{
public:
    Socket() : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {}

    ~Socket()
    {
        // What lies there unread would be closed with the socket, lingering.
        ::shutdown(m_fd, SHUT_RD);
        std::array<unsigned char, DrainBytes> scratch;
        while (receive(scratch.data(), scratch.size()) > 0)
        {
        }
        if (m_fd >= 0)
            ::close(m_fd);
    }

    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int getFD() const
    {
        return m_fd;
    }

    /// As recv().
    ssize_t receive(unsigned char* bytes, std::size_t size) const
    {
        alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(MaxPassedDescriptors * sizeof(int))>
            control;
        iovec part{bytes, size};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t count = ::recvmsg(m_fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        const int error = errno;
        if (count >= 0)
            closePassedDescriptors(message);
        errno = error;
        return count;
    }

private:
    const int m_fd;
};

sockaddr_un makeAddress(const std::string& name, socklen_t& length)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    length = setAbstractName(address, name);
    return address;
}

const sockaddr* toSockaddr(const sockaddr_un& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

/// Reads framed messages with one deadline for all of them.
class MessageReader
{
public:
    MessageReader(const Socket& socket, Clock::time_point deadline)
        : m_socket(socket), m_deadline(deadline)
    {
    }

    bool read(Buffer& message)
    {
        std::uint32_t size = 0;
        unsigned char prefix[sizeof(size)];
        if (!readBytes(prefix, sizeof(prefix)))
            return false;
        std::memcpy(&size, prefix, sizeof(size));
        if (size > MaxMessageBytes)
            return false;
        message.resize(size);
        return readBytes(message.data(), message.size());
    }

    /// @return whether the other side had closed before everything came that was read
    bool isClosed() const
    {
        return m_closed;
    }

    /// @return whether the other side has closed by now, with nothing left to read
    bool isAtEnd() const
    {
        unsigned char byte = 0;
        return m_socket.receive(&byte, sizeof(byte)) == 0;
    }

private:
    bool readBytes(unsigned char* bytes, std::size_t size)
    {
        while (size > 0)
        {
            const ssize_t count = m_socket.receive(bytes, size);
            if (count > 0)
            {
                bytes += count;
                size -= static_cast<std::size_t>(count);
            }
            else if (count == 0 || (errno != EAGAIN && errno != EINTR))
            {
                m_closed = true;
                return false;
            }
            else if (!waitForInput())
            {
                return false;
            }
        }
        return true;
    }

    bool waitForInput() const
    {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(m_deadline - Clock::now()).count();
        if (left <= 0)
            return false;
        pollfd entry{m_socket.getFD(), POLLIN, 0};
        return ::poll(&entry, 1, static_cast<int>(left)) > 0 || errno == EINTR;
    }

    const Socket& m_socket;
    const Clock::time_point m_deadline;
    bool m_closed = false;
};

// parseInitialInfoPacket() stops the process at a malformed packet, which a stranger may send.
bool isInitialInfo(const Buffer& packet)
{
    ByteCursor cursor{ByteView(packet)};
    return cursor.read<std::uint16_t>() && cursor.readTerminatedString() &&
           cursor.read<std::uint16_t>() && cursor.read<std::uint8_t>() &&
           cursor.read<std::uint8_t>() && cursor.readTerminatedString();
}

void takeSequenceInfo(const Buffer& packet, SenderProbe& answer)
{
    if (packet.size() < SequenceInfoHeaderBytes ||
        parsePacketType(packet) != PacketType::SequenceInfo)
        return;
    answer.sequenceNr = parsePacketSequenceNr(packet);
    answer.fourcc = ByteCursor(ByteView(packet), 4).read<std::uint32_t>();
    answer.codecHeader.assign(packet.begin() + SequenceInfoHeaderBytes, packet.end());
    PcmDepayloader depayloader;
    if (answer.fourcc == PcmFourcc && depayloader.processCodecHeader(answer.codecHeader))
        answer.format = {
            depayloader.getSampleFormat(), depayloader.getSampleRate(),
            depayloader.getNumChannels()};
}

/// @return the path of the socket file that the sender announces; empty if no sender announces such
///         a URI. nanomsg removes what does not answer there, and aborts at a path that is too long
std::string parseSocketFile(const std::string& uri)
{
    if (!uri.starts_with(IpcScheme))
        return {};
    const std::string path = uri.substr(IpcScheme.size());
    const bool canBeOne = path.starts_with('/') && path.size() <= MaxSocketPathLength &&
                          path.find("/..") == std::string::npos &&
                          !findSenderDirectoryName(path).empty();
    return canBeOne ? path : std::string();
}

bool isPermitted(const std::string& path, int rights)
{
    return ::faccessat(AT_FDCWD, path.c_str(), rights, AT_EACCESS) == 0;
}

void examineSocketFile(SenderProbe& answer)
{
    const NanomsgProtocol protocol = answer.initialInfo->nanomsgProtocol;
    const bool isPipeline = protocol == NanomsgProtocol::Pipeline;
    const std::string path = parseSocketFile(answer.initialInfo->nanomsgURI);
    if (path.empty() || (!isPipeline && protocol != NanomsgProtocol::PubSub))
        return;

    struct stat status = {};
    const int error = ::lstat(path.c_str(), &status) == 0 ? 0 : errno;
    const bool canBeIts =
        error == 0 ? S_ISSOCK(status.st_mode) : error == EACCES || (error == ENOENT && isPipeline);
    if (!canBeIts)
        return;
    answer.socketFile = path;
    answer.socketFileMode = error == 0 ? status.st_mode & PermissionBits : 0;
    answer.mayJoin = isPipeline ? isPermitted(path.substr(0, path.rfind('/')), W_OK | X_OK)
                                : isPermitted(path, W_OK);
}

} // unnamed namespace

SenderProbe probeSender(const std::string& name, std::chrono::milliseconds timeout)
{
    SenderProbe answer;
    const Socket socket;
    socklen_t length = 0;
    const sockaddr_un address = makeAddress(name, length);
    if (::connect(socket.getFD(), toSockaddr(address), length) != 0)
    {
        answer.busy = errno == EAGAIN; // his backlog is full
        answer.reached = answer.busy;
        return answer;
    }
    answer.reached = true;

    MessageReader reader(socket, Clock::now() + timeout);
    Buffer message;
    if (reader.read(message) && isInitialInfo(message))
    {
        answer.initialInfo = parseInitialInfoPacket(message);
        if (reader.read(message))
            takeSequenceInfo(message, answer);
        examineSocketFile(answer);
    }
    // A sender that is shutting down closes first and removes its socket file then.
    answer.closedEarly = reader.isClosed() || (answer.socketFile.empty() && reader.isAtEnd());
    return answer;
}

bool isNameTaken(const std::string& name)
{
    const Socket socket;
    socklen_t length = 0;
    const sockaddr_un address = makeAddress(name, length);
    return ::bind(socket.getFD(), toSockaddr(address), length) != 0 && errno == EADDRINUSE;
}

std::string toFourccText(std::uint32_t fourcc)
{
    return printFourcc(fourcc);
}

} // namespace vlx::kit
