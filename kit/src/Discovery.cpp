#include <algorithm>
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

namespace vlx::kit
{

namespace
{

using Clock = std::chrono::steady_clock;

// Real messages have a few hundred bytes. A stranger may announce anything.
constexpr std::uint32_t MaxMessageBytes = 1 << 20;

constexpr std::size_t SequenceInfoHeaderBytes = 8;

constexpr std::string_view IpcScheme = "ipc://";

constexpr std::size_t MaxSocketPathLength = sizeof(sockaddr_un::sun_path) - 1;

class Socket
{
public:
    Socket() : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {}

    ~Socket()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }

    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int getFD() const
    {
        return m_fd;
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
    MessageReader(int fd, Clock::time_point deadline) : m_fd(fd), m_deadline(deadline) {}

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

    bool isClosed() const
    {
        return m_closed;
    }

private:
    bool readBytes(unsigned char* bytes, std::size_t size)
    {
        while (size > 0)
        {
            const ssize_t count = ::recv(m_fd, bytes, size, 0);
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
        pollfd entry{m_fd, POLLIN, 0};
        return ::poll(&entry, 1, static_cast<int>(left)) > 0 || errno == EINTR;
    }

    const int m_fd;
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
    const std::size_t slash = path.rfind('/');
    const bool isAbsolute = path.starts_with('/');
    if (!isAbsolute || path.size() > MaxSocketPathLength || path.find("/..") != std::string::npos)
        return {};
    const std::size_t parent = path.rfind('/', slash - 1) + 1;
    const bool isBelowSenderDirectory =
        slash > 0 &&
        path.compare(parent, std::strlen(SenderDirectoryPrefix), SenderDirectoryPrefix) == 0;
    return isBelowSenderDirectory ? path : std::string();
}

bool isPermitted(const std::string& path, int rights)
{
    return ::faccessat(AT_FDCWD, path.c_str(), rights, AT_EACCESS) == 0;
}

void examineSocketFile(SenderProbe& answer)
{
    const bool isPipeline = answer.initialInfo->nanomsgProtocol == NanomsgProtocol::Pipeline;
    const std::string path = parseSocketFile(answer.initialInfo->nanomsgURI);
    if (path.empty())
        return;

    struct stat status = {};
    if (::lstat(path.c_str(), &status) == 0)
    {
        if (!S_ISSOCK(status.st_mode))
            return;
        answer.socketFileMode = status.st_mode & 07777;
    }
    else if (errno == ENOENT && !isPipeline)
        return;
    else if (errno != ENOENT && errno != EACCES)
        return;
    answer.socketFile = path;
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

    MessageReader reader(socket.getFD(), Clock::now() + timeout);
    Buffer message;
    if (reader.read(message) && isInitialInfo(message))
    {
        answer.initialInfo = parseInitialInfoPacket(message);
        examineSocketFile(answer);
        if (reader.read(message))
            takeSequenceInfo(message, answer);
    }
    answer.closedEarly = reader.isClosed();
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
