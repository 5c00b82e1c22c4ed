#include "SenderQuestion.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <vlx/VlxPayload.hpp>

#include "ChannelCheck.hpp"
#include "FrameRing.hpp"
#include "base/AbstractName.hpp"
#include "base/Connection.hpp"
#include "base/LittleEndian.hpp"

namespace vlx::kit
{

namespace
{

constexpr std::size_t ChunkBytes = 4096;

constexpr std::size_t SequenceInfoHeaderBytes = 8;

bool connectSocket(int fd, const std::string& name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const socklen_t length = setAbstractName(address, name);
    return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0;
}

void takeSequenceInfo(const Buffer& packet, SenderProbe& answer)
{
    if (packet.size() < SequenceInfoHeaderBytes ||
        parsePacketType(packet) != PacketType::SequenceInfo)
        return;
    answer.sequenceNr = parsePacketSequenceNr(packet);
    answer.fourcc = ByteCursor(ByteView(packet), 4).read<std::uint32_t>();
    answer.codecHeader.assign(packet.begin() + SequenceInfoHeaderBytes, packet.end());
    auto shared = answer.fourcc == RingFourcc ? parseRingHeader(answer.codecHeader) : std::nullopt;
    if (shared)
    {
        answer.ring = std::move(shared->layout);
        answer.fourcc = shared->fourcc;
        answer.codecHeader = std::move(shared->codecHeader);
    }
    PcmDepayloader depayloader;
    if (answer.fourcc == PcmFourcc && depayloader.processCodecHeader(answer.codecHeader))
        answer.format = {
            depayloader.getSampleFormat(), depayloader.getSampleRate(),
            depayloader.getNumChannels()};
}

uid_t findPeerUser(int fd)
{
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length);
    return credentials.uid;
}

} // unnamed namespace

SenderQuestion::SenderQuestion(const std::string& name)
    : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
{
    keepUrgentBytesInLine(m_fd);
    if (connectSocket(m_fd, name))
    {
        m_answer.reached = true;
        m_answer.user = findPeerUser(m_fd);
        return;
    }
    m_answer.busy = errno == EAGAIN; // its backlog is full
    m_answer.reached = m_answer.busy;
    m_over = true;
}

SenderQuestion::~SenderQuestion()
{
    if (m_fd < 0)
        return;
    closeConnection(m_fd);
}

void SenderQuestion::abandon()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
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
        m_over = size > MaxSidechannelMessageBytes;
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
    else
    {
        m_answer.initialInfo = readInitialInfo(message);
        m_over = !m_answer.initialInfo;
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
    {
        ChannelCheck channel = checkChannel(*answer.initialInfo, *answer.user);
        answer.socketFile = std::move(channel.socketFile);
        answer.socketFileMode = channel.socketFileMode;
        answer.mayJoin = channel.mayJoin;
    }
    // A sender that is shutting down closes first and removes its socket file then.
    unsigned char scratch = 0;
    if (answer.initialInfo && answer.socketFile.empty())
        answer.closedEarly =
            answer.closedEarly || receiveWithoutWaiting(m_fd, &scratch, sizeof(scratch)) == 0;
    return answer;
}

} // namespace vlx::kit
