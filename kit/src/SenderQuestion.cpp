#include "SenderQuestion.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>

#include <AbstractName.hpp>
#include <Connection.hpp>
#include <LittleEndian.hpp>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <vlx/VlxPayload.hpp>

#include "SenderSearch.hpp"

namespace vlx::kit
{

namespace
{

// Real messages have a few hundred bytes. A stranger may announce anything.
constexpr std::uint32_t MaxMessageBytes = 1 << 20;

constexpr mode_t PermissionBits = 07777;

constexpr std::size_t ChunkBytes = 4096;

constexpr std::size_t SequenceInfoHeaderBytes = 8;

constexpr std::string_view IpcScheme = "ipc://";

constexpr std::size_t MaxSocketPathLength = sizeof(sockaddr_un::sun_path) - 1;

bool connectSocket(int fd, const std::string& name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const socklen_t length = setAbstractName(address, name);
    return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0;
}

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

SenderQuestion::SenderQuestion(const std::string& name)
    : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
{
    keepUrgentBytesInLine(m_fd);
    if (connectSocket(m_fd, name))
    {
        m_answer.reached = true;
        return;
    }
    m_answer.busy = errno == EAGAIN; // his backlog is full
    m_answer.reached = m_answer.busy;
    m_over = true;
}

SenderQuestion::~SenderQuestion()
{
    if (m_fd < 0)
        return;
    closeConnection(m_fd);
}

void SenderQuestion::advance()
{
    std::array<unsigned char, ChunkBytes> chunk;
    while (!m_over)
    {
        const ssize_t size = receiveWithoutWaiting(m_fd, chunk.data(), chunk.size());
        if (size < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        m_answer.closedEarly = size <= 0;
        m_over = m_answer.closedEarly;
        m_input.insert(m_input.end(), chunk.begin(), chunk.begin() + std::max<ssize_t>(size, 0));
        takeMessages();
    }
}

void SenderQuestion::takeMessages()
{
    std::uint32_t size = 0;
    while (!m_over && m_input.size() >= sizeof(size))
    {
        std::memcpy(&size, m_input.data(), sizeof(size));
        m_over = size > MaxMessageBytes;
        if (m_over || m_input.size() - sizeof(size) < size)
            return;
        const auto begin = m_input.begin() + sizeof(size);
        takeMessage(Buffer(begin, begin + size));
        m_input.erase(m_input.begin(), begin + size);
    }
}

void SenderQuestion::takeMessage(const Buffer& message)
{
    if (m_answer.initialInfo)
    {
        takeSequenceInfo(message, m_answer);
        m_over = true;
    }
    else if (isInitialInfo(message))
    {
        m_answer.initialInfo = parseInitialInfoPacket(message);
    }
    else
    {
        m_over = true;
    }
}

std::string findConnection(const std::string& name)
{
    sockaddr_un wanted{};
    wanted.sun_family = AF_UNIX;
    const socklen_t wantedLength = setAbstractName(wanted, name);

    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error))
    {
        // Not getpeername(): its thread may close the descriptor meanwhile. That does no harm here,
        // but a thread sanitizer cannot know it.
        const int fd = std::atoi(entry.path().filename().c_str());
        sockaddr_un peer{};
        socklen_t length = sizeof(peer);
        if (::syscall(SYS_getpeername, fd, &peer, &length) == 0 && length == wantedLength &&
            std::memcmp(&peer, &wanted, length) == 0)
            return std::filesystem::read_symlink(entry.path(), error).string();
    }
    return {};
}

SenderProbe SenderQuestion::getAnswer() const
{
    SenderProbe answer = m_answer;
    if (answer.initialInfo)
        examineSocketFile(answer);
    // A sender that is shutting down closes first and removes its socket file then.
    unsigned char scratch = 0;
    if (answer.initialInfo && answer.socketFile.empty())
        answer.closedEarly =
            answer.closedEarly || receiveWithoutWaiting(m_fd, &scratch, sizeof(scratch)) == 0;
    return answer;
}

} // namespace vlx::kit
