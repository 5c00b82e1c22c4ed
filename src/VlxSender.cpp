#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <nanomsg/nn.h>
#include <nanomsg/pipeline.h>
#include <nanomsg/pubsub.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxSender.hpp>

#include "base/AbstractName.hpp"
#include "base/Assertions.hpp"
#include "base/Connection.hpp"
#include "base/Descriptors.hpp"
#include "base/ErrorText.hpp"
#include "base/ForkedCopy.hpp"
#include "base/Fourcc.hpp"
#include "base/Guards.hpp"
#include "base/SenderDirectory.hpp"
#include "base/ThreadName.hpp"
#include "base/WakeupPipe.hpp"

namespace vlx
{

namespace
{

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox"));

constexpr std::uint16_t ProtocolVersion = 1;
constexpr int ListenBacklog = 32;
constexpr std::size_t ClientScratchBytes = 256;
// A packet that no receiver takes at once is dropped, not queued.
constexpr int NanomsgSendBufferBytes = 1;

// Entries of the listener's poll set.
constexpr std::size_t WakeupEntry = 0;
constexpr std::size_t ListenerEntry = 1;
constexpr std::size_t FirstClientEntry = 2;

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds AcceptPause{100};

/// Opens the directory that mkdtemp() has just created to all users, and nothing else: in a base
/// directory without the sticky bit, another user can replace it meanwhile.
void openToEverybody(const std::string& path)
{
    const OwnedDescriptor directory(
        ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (::fstat(directory.get(), &status) == 0 && status.st_uid == ::geteuid() &&
        (status.st_mode & ACCESSPERMS) == S_IRWXU)
        ::fchmod(directory.get(), SenderDirectoryMode);
}

/// Creates the sender's directory.
///
/// @param base  directory in which it is created
/// @param path  set to the directory's path; empty if it cannot be created
/// @return 0, or the system's error number
int makeTempDirectory(const std::string& base, std::string& path)
{
    path = makeSenderDirectoryTemplate(base);
    if (::mkdtemp(path.data()) == nullptr)
    {
        const int error = errno;
        path.clear();
        return error;
    }
    openToEverybody(path);
    return 0;
}

/// @return whether the socket is bound; otherwise errno has the reason
bool bindAbstractName(int fd, sockaddr_un& address, const std::string& name)
{
    const socklen_t length = setAbstractName(address, name);
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0;
}

/// @return a new connection's descriptor; -1 with errno set if there is no connection
int acceptConnection(int listenerFD)
{
    sockaddr peerAddress{};
    socklen_t peerAddressLength = sizeof(peerAddress);
    const int fd = ::accept(listenerFD, &peerAddress, &peerAddressLength);
    if (fd >= 0)
    {
        setCloseOnExec(fd);
        keepUrgentBytesInLine(fd);
    }
    return fd;
}

/// @return whether accept() failed for want of a system resource that may become available again
bool isShortage(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

/// Waits for activity; for new connections only from a given time on.
///
/// @return the result of poll()
int pollConnections(std::vector<pollfd>& entries, Clock::time_point acceptFrom)
{
    const bool isAccepting = Clock::now() >= acceptFrom;
    entries[ListenerEntry].events = isAccepting ? POLLIN : 0;
    return isAccepting ? pollUninterrupted(entries.data(), entries.size(), NoTimeout)
                       : pollUntil(entries.data(), entries.size(), acceptFrom);
}

/// Closes the connections that wait in the backlog, then the listening socket. The system would
/// close them with the socket, and might block on the data that they contain.
void closeListener(int listenerFD)
{
    ::shutdown(listenerFD, SHUT_RDWR); // no process can connect any more
    int fd = acceptConnection(listenerFD);
    for (; fd >= 0; fd = acceptConnection(listenerFD))
        closeConnection(fd);
    if (isShortage(errno))
        closeAside(listenerFD);
    else
        ::close(listenerFD);
}

/// Reads and discards data from a receiver. Never waits.
///
/// @return number of bytes; 0 if the receiver has disconnected; negative with errno set if the
///         connection could not be read
ssize_t discardInput(int fd)
{
    std::array<std::uint8_t, ClientScratchBytes> scratch;
    return receiveWithoutWaiting(fd, scratch.data(), scratch.size());
}

/// Blocks SIGPIPE, so that writing to a closed connection does not kill the host process. Only the
/// mask of the listener thread changes.
void blockSigpipeInThisThread()
{
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

} // namespace

Sender::Sender() : m_pollFDs(std::make_unique<std::vector<pollfd>>()) {}

Sender::~Sender()
{
    shutdownSender();
}

void Sender::setBaseDirectory(std::string directory)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_baseDirectory = std::move(directory);
}

// NOLINTNEXTLINE(readability-function-size): its log lines carry this function's name
bool Sender::initializeSender(
    std::string socketAddress,
    std::string alternativeSocketAddress,
    std::string timeSyncIPAddress,
    std::uint32_t timeSyncPort,
    TimeSyncProtocol timeSyncProtocol,
    NanomsgProtocol nanomsgProtocol)
{
    if (socketAddress.size() > MaxSocketNameLength)
    {
        LOG4CPLUS_ERROR(
            logger,
            "Cannot set up sender since the Unix domain socket address is too long (max allowed "
            "length: "
                << MaxSocketNameLength << " actual length: " << socketAddress.size() << ")");
    }

    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_initialized)
        return true;

    m_process = ::getpid();
    LOG4CPLUS_TRACE(logger, "Setting up sender with socket address \"" << socketAddress << '"');
    if (!alternativeSocketAddress.empty())
    {
        LOG4CPLUS_TRACE(logger, "Alternative socket address \"" << alternativeSocketAddress << '"');
    }

    if (const int error = createPipe(m_listenerWakeupPipe))
    {
        LOG4CPLUS_ERROR(
            logger,
            "Could not create VLX sender thread look wakeup pipe: " << describeError(error));
        return false;
    }
    if (const int error = createNanomsgWakeupPipe())
    {
        LOG4CPLUS_ERROR(logger, "Could not create nanomsg wakeup pipe: " << describeError(error));
        return false;
    }

    const int tempDirectoryError =
        makeTempDirectory(getBaseDirectory(m_baseDirectory), m_tempDirectory);
    if (m_tempDirectory.empty())
    {
        LOG4CPLUS_ERROR(
            logger, "Could not create temporary directory for nanomsg SP socket: "
                        << describeError(tempDirectoryError));
        return false;
    }
    m_nanomsgIPCFilePath = makeSocketFilePath(m_tempDirectory);
    m_nanomsgURI = makeSocketURI(m_nanomsgIPCFilePath);

    m_socketAddress = std::move(socketAddress);
    m_alternativeSocketAddress = std::move(alternativeSocketAddress);
    m_timeSyncIPAddress = std::move(timeSyncIPAddress);
    m_timeSyncPort = timeSyncPort;
    m_timeSyncProtocol = timeSyncProtocol;
    m_nanomsgProtocol = nanomsgProtocol;
    LOG4CPLUS_DEBUG(logger, "Nanomsg URI: \"" << m_nanomsgURI << '"');

    prepareInitialInfoPacket();
    if (!setupListener())
    {
        LOG4CPLUS_ERROR(logger, "Failed to set up the listener socket");
        return false;
    }
    if (!setupNanomsgMainChannel())
    {
        LOG4CPLUS_ERROR(logger, "Failed to set up the nanomsg main channel");
        return false;
    }

    m_pollFDs->push_back({m_listenerWakeupPipe[0], POLLIN, 0});
    m_pollFDs->push_back({m_listenerSocketFD, POLLIN, 0});
    m_initialized = true;
    m_listenerThreadRunning = true;
    m_listenerThread = std::thread(&Sender::listenerThreadLoop, this);

    LOG4CPLUS_TRACE(logger, "Sender initialized");
    return true;
}

void Sender::prepareInitialInfoPacket()
{
    InitialInfo info{};
    info.version = ProtocolVersion;
    info.timeSyncIPAddress = m_timeSyncIPAddress;
    info.timeSyncPort = static_cast<std::uint16_t>(m_timeSyncPort);
    info.timeSyncProtocol = m_timeSyncProtocol;
    info.nanomsgProtocol = m_nanomsgProtocol;
    info.nanomsgURI = m_nanomsgURI;
    m_initialInfoPacket = produceInitialInfoPacket(info);
}

void Sender::shutdownSender()
{
    if (isForkedCopy(m_process))
    {
        abandon();
        return;
    }

    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_initialized)
        return;

    m_listenerThreadRunning = false;
    m_sendDisabled = true;
    if (!writeWakeupByte(m_listenerWakeupPipe))
        LOG4CPLUS_ERROR(logger, "Failed to write shutdown flag to listeners");
    if (!writeWakeupByte(m_nanomsgWakeupPipe))
        LOG4CPLUS_ERROR(logger, "Failed to write wakeup flag for shutdown");

    // The listener thread takes the lock to check whether it must end.
    lock.unlock();
    if (m_listenerThread.joinable())
        m_listenerThread.join();
    lock.lock();

    shutdownListener();
    shutdownNanomsgMainChannel();
    m_pollFDs->clear();
    closePipe(m_listenerWakeupPipe);
    closeNanomsgWakeupPipe();

    if (!m_nanomsgURI.empty())
    {
        LOG4CPLUS_DEBUG(
            logger,
            "Deleting nanomsg IPC socket file \"" << m_nanomsgIPCFilePath << "\" if it exists");
        ::unlink(m_nanomsgIPCFilePath.c_str());
    }
    if (!m_tempDirectory.empty())
    {
        LOG4CPLUS_DEBUG(
            logger, "Deleting temporary nanomsg socket directory \"" << m_tempDirectory << '"');
        ::rmdir(m_tempDirectory.c_str());
    }
    m_nanomsgURI.clear();
    m_nanomsgIPCFilePath.clear();
    m_tempDirectory.clear();
    m_initialized = false;
    LOG4CPLUS_TRACE(logger, "Sender shut down");
}

/// Closes the copies of the descriptors and abandons the rest. Anything else, even a log line,
/// would affect the original or wait for a thread that does not exist here.
void Sender::abandon()
{
    if (m_mutex.try_lock())
    {
        for (std::size_t i = FirstClientEntry; i < m_pollFDs->size(); ++i)
        {
            if ((*m_pollFDs)[i].fd >= 0)
                ::close((*m_pollFDs)[i].fd);
        }
        m_mutex.unlock();
    }
    else // a thread may have been changing what the lock guards
    {
        makeAnew(
            m_pollFDs, m_socketAddress, m_alternativeSocketAddress, m_timeSyncIPAddress,
            m_nanomsgURI, m_nanomsgIPCFilePath, m_tempDirectory, m_initialInfoPacket,
            m_sequenceInfoPacket, m_framePacket);
        m_pollFDs = std::make_unique<std::vector<pollfd>>();
    }
    makeAnew(m_listenerThread, m_mutex, m_sendMutex);

    if (m_listenerSocketFD >= 0)
        ::close(m_listenerSocketFD);
    closePipe(m_listenerWakeupPipe);
    closePipe(m_nanomsgWakeupPipe);
    m_listenerSocketFD = -1;
    m_nanomsgMainFD = -1;
    m_nanomsgEndpointID = -1;
    m_pollFDs->clear();
    m_nanomsgURI.clear();
    m_nanomsgIPCFilePath.clear();
    m_tempDirectory.clear();
    m_listenerThreadRunning = false;
    m_sendDisabled = true;
    m_initialized = false;
}

int Sender::createNanomsgWakeupPipe()
{
    const std::lock_guard<std::mutex> lock(m_sendMutex);
    return createPipe(m_nanomsgWakeupPipe);
}

void Sender::closeNanomsgWakeupPipe()
{
    const std::lock_guard<std::mutex> lock(m_sendMutex);
    closePipe(m_nanomsgWakeupPipe);
}

std::size_t Sender::getNumReceivers() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_initialized)
        return 0;

    const std::uint64_t numConnections =
        ::nn_get_statistic(m_nanomsgMainFD, NN_STAT_CURRENT_CONNECTIONS);
    constexpr auto StatisticFailed = static_cast<std::uint64_t>(-1);
    return numConnections == StatisticFailed ? 0 : static_cast<std::size_t>(numConnections);
}

bool Sender::setupListener()
{
    assert(m_listenerSocketFD < 0);
    ScopeGuard listenerGuard([this] { shutdownListener(); });

    m_listenerSocketFD = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_listenerSocketFD < 0)
    {
        const int error = errno;
        LOG4CPLUS_DEBUG(logger, "Could not create listener socket: " << describeError(error));
        return false;
    }

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (!bindAbstractName(m_listenerSocketFD, address, m_socketAddress))
    {
        const int error = errno;
        LOG4CPLUS_DEBUG(logger, "Could not bind listener socket: " << describeError(error));
        if (m_alternativeSocketAddress.empty())
            return false;

        LOG4CPLUS_DEBUG(logger, "Binding to alternative address " << m_alternativeSocketAddress);
        if (!bindAbstractName(m_listenerSocketFD, address, m_alternativeSocketAddress))
        {
            // The C library's text, even if another companion library has its own.
            const int alternativeError = errno;
            LOG4CPLUS_DEBUG(
                logger, "Could not bind listener socket: " << std::strerror(alternativeError)
                                                           << " (" << alternativeError << ")");
            return false;
        }
    }

    if (::listen(m_listenerSocketFD, ListenBacklog) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(
            logger,
            "Could not set socket to listen for incoming connections: " << describeError(error));
        return false;
    }

    listenerGuard.dismiss();
    LOG4CPLUS_TRACE(logger, "Listener set up");
    return true;
}

// Each pass handles one poll: a wakeup ends the thread, a new client gets its packets, and
// disconnected clients are removed.
// NOLINTNEXTLINE(readability-function-size): its log lines carry this function's name
void Sender::listenerThreadLoop()
{
    nameThisThread("vlx-listener");
    blockSigpipeInThisThread();
    Clock::time_point acceptFrom{};
    bool isShortageReported = false;

    while (shouldKeepRunning())
    {
        std::vector<pollfd>& entries = *m_pollFDs;
        if (pollConnections(entries, acceptFrom) < 0)
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger, "Could not poll for activity: " << describeError(error));
            break;
        }

        if ((entries[WakeupEntry].revents & POLLIN) != 0)
        {
            LOG4CPLUS_TRACE(logger, "Listener thread loop wakeup activity");
            if (!drainWakeupPipe(m_listenerWakeupPipe))
            {
                const int error = errno;
                LOG4CPLUS_ERROR(
                    logger, "Error while receiving wakeup call over control pipe: "
                                << describeError(error));
            }
            break;
        }

        if ((entries[ListenerEntry].revents & POLLIN) != 0)
        {
            LOG4CPLUS_TRACE(logger, "Listener thread socket activity");
            const int fd = acceptConnection(m_listenerSocketFD);
            const int error = errno;
            if (fd >= 0)
            {
                isShortageReported = false;
                LOG4CPLUS_DEBUG(logger, "New client connection: FD " << fd);
                // Sent under the lock, so that a new client gets one complete SequenceInfo packet,
                // either the old one or the new.
                const std::lock_guard<std::mutex> lock(m_mutex);
                entries.push_back({fd, POLLIN, 0});
                LOG4CPLUS_DEBUG(
                    logger, "Sending InitialInfo packet with " << m_initialInfoPacket.size()
                                                               << " bytes to connection with FD "
                                                               << fd);
                sendDataOverClientConnection(fd, m_initialInfoPacket);
                if (!m_sequenceInfoPacket.empty())
                {
                    LOG4CPLUS_DEBUG(
                        logger, "Sending SequenceInfo packet with "
                                    << m_sequenceInfoPacket.size()
                                    << " bytes to connection with FD " << fd);
                    sendDataOverClientConnection(fd, m_sequenceInfoPacket);
                }
            }
            else if (error == EAGAIN)
                LOG4CPLUS_DEBUG(logger, "No socket to accept; socket may have gone away");
            else if (!isShortage(error) || !std::exchange(isShortageReported, true))
            {
                LOG4CPLUS_ERROR(
                    logger, "Could not accept new connection: " << describeError(error));
            }
            if (fd < 0 && isShortage(error))
                acceptFrom = Clock::now() + AcceptPause;
        }

        // Without the lock: it is only needed to change the list, and no other thread changes it.
        for (std::size_t i = FirstClientEntry; i < entries.size();)
        {
            if ((entries[i].revents & POLLIN) == 0)
            {
                ++i;
                continue;
            }
            const int fd = entries[i].fd;
            const ssize_t numBytes = discardInput(fd);
            if (numBytes == 0)
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                entries[i].fd = -1;
                lock.unlock();
                closeConnection(fd);
                lock.lock();
                entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(i));
                LOG4CPLUS_DEBUG(
                    logger, "Client connection with FD " << fd << " got closed; "
                                                         << entries.size() - FirstClientEntry
                                                         << " connection(s) remain");
                continue;
            }
            if (numBytes < 0)
            {
                const int error = errno;
                LOG4CPLUS_ERROR(
                    logger, "Error trying to receive bytes from client connection FD: "
                                << describeError(error));
            }
            ++i;
        }
    }
    m_listenerThreadRunning = false;
}

bool Sender::shouldKeepRunning() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_listenerThreadRunning;
}

void Sender::sendDataOverClientConnection(int fd, const ByteView& data)
{
    LOG4CPLUS_TRACE(
        logger,
        "Sending message with " << data.size() << " bytes over client connection with FD " << fd);

    const auto messageSize = static_cast<std::uint32_t>(data.size());
    if (::send(fd, &messageSize, sizeof(messageSize), MSG_DONTWAIT) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(
            logger, "Could not send message size to client connection with FD "
                        << fd << ": " << describeError(error));
        return;
    }
    if (::send(fd, data.data(), data.size(), MSG_DONTWAIT) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(
            logger, "Could not send message payload to client connection with FD "
                        << fd << ": " << describeError(error));
    }
}

void Sender::sendDataOverAllClientConnections(const ByteView& data)
{
    for (const pollfd& entry : *m_pollFDs)
        sendDataOverClientConnection(entry.fd, data);
}

bool Sender::areThereClientConnections() const
{
    return m_pollFDs->size() > FirstClientEntry;
}

void Sender::shutdownListener()
{
    if (areThereClientConnections())
    {
        for (std::size_t i = FirstClientEntry; i < m_pollFDs->size(); ++i)
            closeConnection(std::exchange((*m_pollFDs)[i].fd, -1));
        m_pollFDs->resize(FirstClientEntry);
    }
    if (m_listenerSocketFD >= 0)
        closeListener(std::exchange(m_listenerSocketFD, -1));
    LOG4CPLUS_TRACE(logger, "Listener shut down");
}

bool Sender::setupNanomsgMainChannel()
{
    assert(m_nanomsgMainFD < 0);
    ScopeGuard mainChannelGuard([this] { shutdownNanomsgMainChannel(); });

    const bool isPipeline = m_nanomsgProtocol == NanomsgProtocol::Pipeline;
    if (!isPipeline && m_nanomsgProtocol != NanomsgProtocol::PubSub)
        assert(false);

    m_nanomsgMainFD = ::nn_socket(AF_SP, isPipeline ? NN_PUSH : NN_PUB);
    if (m_nanomsgMainFD < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not create nanomsg SP socket: " << describeError(error));
        return false;
    }

    m_nanomsgEndpointID = isPipeline ? ::nn_connect(m_nanomsgMainFD, m_nanomsgURI.c_str())
                                     : ::nn_bind(m_nanomsgMainFD, m_nanomsgURI.c_str());
    if (m_nanomsgEndpointID < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(
            logger, "Could not connect the nanomsg SP socket: " << describeError(error));
        return false;
    }

    if (::nn_setsockopt(
            m_nanomsgMainFD, NN_SOL_SOCKET, NN_SNDBUF, &NanomsgSendBufferBytes,
            sizeof(NanomsgSendBufferBytes)) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not set the send buffer size: " << describeError(error));
        return false;
    }

    std::size_t watchFDSize = sizeof(m_nanomsgWatchFD);
    if (::nn_getsockopt(m_nanomsgMainFD, NN_SOL_SOCKET, NN_SNDFD, &m_nanomsgWatchFD, &watchFDSize) <
        0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(
            logger, "Could not retrieve the nanosmg watch FD: " << describeError(error));
        ::nn_shutdown(m_nanomsgMainFD, m_nanomsgEndpointID);
        m_nanomsgEndpointID = -1;
        return false;
    }
    LOG4CPLUS_DEBUG(logger, "Nanomsg watch FD: " << m_nanomsgWatchFD);

    mainChannelGuard.dismiss();
    m_sendDisabled = false;
    return true;
}

void Sender::shutdownNanomsgMainChannel()
{
    if (m_nanomsgEndpointID >= 0)
    {
        ::nn_shutdown(m_nanomsgMainFD, m_nanomsgEndpointID);
        m_nanomsgEndpointID = -1;
    }
    if (m_nanomsgMainFD >= 0)
    {
        if (::nn_close(m_nanomsgMainFD) < 0)
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger, "Error while closing SP socket: " << describeError(error));
        }
        m_nanomsgMainFD = -1;
    }
}

void Sender::sendDataOverNanomsg(const ByteView& data)
{
    assert(m_nanomsgMainFD >= 0);
    {
        const std::lock_guard<std::mutex> lock(m_sendMutex);
        if (m_sendDisabled)
        {
            LOG4CPLUS_TRACE(logger, "Cannot send anything; sending is disabled");
            return;
        }
    }

    std::array<pollfd, 2> entries = {
        pollfd{m_nanomsgWakeupPipe[0], POLLIN, 0}, pollfd{m_nanomsgWatchFD, POLLIN, 0}};
    const auto& [wakeupEntry, watchEntry] = entries;
    LOG4CPLUS_TRACE(logger, "Sending data with " << data.size() << " bytes over nanomsg SP socket");
    if (pollUninterrupted(entries.data(), entries.size(), NoTimeout) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(
            logger, "poll() error while writing data to nanomsg: " << describeError(error));
        return;
    }

    if ((wakeupEntry.revents & POLLIN) != 0)
    {
        LOG4CPLUS_TRACE(logger, "Nanomsg wakeup pipe activity");
        if (!drainWakeupPipe(m_nanomsgWakeupPipe))
        {
            const int error = errno;
            LOG4CPLUS_ERROR(
                logger,
                "Error while receiving wakeup call over control pipe: " << describeError(error));
        }
    }
    if ((watchEntry.revents & POLLIN) == 0)
        return;

    LOG4CPLUS_TRACE(logger, "Nanomsg watch FD activity");
    if (::nn_send(m_nanomsgMainFD, data.data(), data.size(), NN_DONTWAIT) < 0)
    {
        const int error = errno;
        if (error == EAGAIN)
        {
            LOG4CPLUS_DEBUG(logger, "Could not send data over nanomsg; connection might be gone");
        }
        else
        {
            LOG4CPLUS_ERROR(
                logger, "Error while trying to send data over nanomsg: " << describeError(error));
        }
    }
}

void Sender::disableSend(bool disable)
{
    if (isForkedCopy(m_process)) // its wakeup would affect the original
        return;

    const std::lock_guard<std::mutex> lock(m_sendMutex);
    if (m_sendDisabled == disable)
        return;

    m_sendDisabled = disable;
    LOG4CPLUS_TRACE(logger, "Send operations are now " << (disable ? "disabled" : "enabled"));
    if (disable && m_nanomsgWakeupPipe[1] >= 0 && !writeWakeupByte(m_nanomsgWakeupPipe))
        LOG4CPLUS_ERROR(logger, "Failed to write wakeup flag for disable");
}

void Sender::setCurrentPayloader(Payloader& payloader)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    LOG4CPLUS_DEBUG(
        logger, "Set payloader with FourCC \"" << printFourcc(payloader.getFourcc()) << '"');
    m_payloader = &payloader;
}

void Sender::startNewSequence()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_listenerThreadRunning)
    {
        LOG4CPLUS_DEBUG(
            logger, "Not starting new sequence since the listener thread is not running");
        return;
    }
    assert(m_payloader != nullptr);

    // 0 means "no sequence yet" and is skipped when the number wraps.
    ++m_sequenceNr;
    if (m_sequenceNr == 0)
        m_sequenceNr = 1;
    LOG4CPLUS_DEBUG(logger, "Starting new sequence with nr " << m_sequenceNr);

    produceSequenceInfoPacket(
        m_sequenceInfoPacket, m_payloader->getFourcc(), m_payloader->getCodecHeader(),
        m_sequenceNr);

    if (areThereClientConnections())
    {
        LOG4CPLUS_DEBUG(logger, "Sending out new SequenceInfo packet to client connections");
        const Buffer packet = m_sequenceInfoPacket;
        lock.unlock();
        sendDataOverNanomsg(packet);
    }
    else
    {
        LOG4CPLUS_DEBUG(
            logger, "There are no client connections; no need to send SequenceInfo packet now");
    }
}

void Sender::sendMediaData(TimeValue timestamp, TimeValue duration, const ByteView& mediaData)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_listenerThreadRunning)
    {
        LOG4CPLUS_TRACE(logger, "Cannot send media data: Listener thread is not running");
        return;
    }
    assert(m_payloader != nullptr);

    m_payloader->produceFramePacket(m_framePacket, m_sequenceNr, timestamp, duration, mediaData);
    LOG4CPLUS_TRACE(
        logger, "Payloader wrapped media data with "
                    << mediaData.size() << " byte into packet with " << m_framePacket.size()
                    << " byte");

    // Without the lock: only this thread changes the packet, and the send may wait for a receiver.
    lock.unlock();
    sendDataOverNanomsg(m_framePacket);
}

} // namespace vlx
