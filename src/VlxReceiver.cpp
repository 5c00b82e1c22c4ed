#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>
#include <utility>

#include <dirent.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <nanomsg/nn.h>
#include <nanomsg/pipeline.h>
#include <nanomsg/pubsub.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlx/VlxReceiver.hpp>

#include "base/AbstractName.hpp"
#include "base/Assertions.hpp"
#include "base/Connection.hpp"
#include "base/Descriptors.hpp"
#include "base/ErrorText.hpp"
#include "base/ForkedCopy.hpp"
#include "base/Guards.hpp"
#include "base/SenderDirectory.hpp"
#include "base/ThreadName.hpp"
#include "base/WakeupPipe.hpp"

namespace vlx
{

namespace
{

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox"));

constexpr int ReconnectDelayMs = 400;
constexpr int ConnectTimeoutMs = 400;
constexpr int InputTimeoutMs = 50;
constexpr int MonitorTimeoutMs = 5000;

constexpr int NanomsgReceiveBufferBytes = 1;
constexpr int NanomsgNoSizeLimit = -1;

// Settings of the network clock: number of observations in its estimate, and the longest accepted
// round trip in nanoseconds.
constexpr unsigned int ClockWindowSize = 100;
constexpr unsigned long ClockRoundTripLimitNs = 175'000'000;

// Results of readSidechannelMessage().
constexpr int MessageIncomplete = 0;
constexpr int MessageComplete = 1;
constexpr int SidechannelGone = 2;
constexpr int MessageTooLong = 3; // longer than the application allows

constexpr std::size_t PrefixBytes = 4;

// The header and one more byte: a precondition of the packet functions.
constexpr std::size_t MinPacketBytes = 5;

// Sequence numbers wrap: a number from the top of the range is old once the current one has
// restarted at the bottom.
constexpr unsigned LowestNumberBeforeWrap = 65520;
constexpr unsigned HighestNumberAfterWrap = 14;

bool hasInput(const pollfd& entry)
{
    return (entry.revents & POLLIN) != 0;
}

int setIntOption(int socketFD, int option, int value)
{
    return ::nn_setsockopt(socketFD, NN_SOL_SOCKET, option, &value, sizeof(value));
}

/// Limits how long connect() waits for a sender with a full backlog; it then fails with EAGAIN.
void limitConnectTime(int socketFD)
{
    timeval limit = {};
    limit.tv_usec = ConnectTimeoutMs * 1000L;
    ::setsockopt(socketFD, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

/// Owns a message that nanomsg allocated.
class NanomsgMessage
{
public:
    NanomsgMessage() = default;

    ~NanomsgMessage()
    {
        if (m_data != nullptr)
            ::nn_freemsg(m_data);
    }

    NanomsgMessage(const NanomsgMessage&) = delete;
    NanomsgMessage& operator=(const NanomsgMessage&) = delete;

    /// @return whether a message was received; otherwise errno has the reason
    bool receive(int socketFD)
    {
        const int size = ::nn_recv(socketFD, &m_data, NN_MSG, NN_DONTWAIT);
        if (size < 0)
            return false;
        m_size = static_cast<std::size_t>(size);
        return true;
    }

    ByteView getBytes() const
    {
        return {static_cast<const unsigned char*>(m_data), m_size};
    }

private:
    void* m_data = nullptr;
    std::size_t m_size = 0;
};

/// @return name of the first sender directory among a directory's entries; empty if there is no
///         such entry
std::string findSenderDirectory(DIR* directory)
{
    const std::string_view prefix = SenderDirectoryPrefix;
    while (const dirent* const entry = ::readdir(directory))
    {
        const std::string_view name = entry->d_name;
        struct stat status = {};
        if (name.starts_with(prefix) &&
            ::fstatat(::dirfd(directory), entry->d_name, &status, 0) == 0 &&
            S_ISDIR(status.st_mode))
            return entry->d_name;
    }
    return {};
}

/// Reads from an inotify instance and evaluates only the first event.
///
/// @return name of a starting sender's entry; empty if the event is not a sender's
std::string readSenderEvent(int inotifyFD)
{
    constexpr std::size_t MaxNameBytes = 256;
    alignas(inotify_event) std::array<char, sizeof(inotify_event) + MaxNameBytes> buffer{};
    const ssize_t numBytes = ::read(inotifyFD, buffer.data(), buffer.size());
    if (numBytes < static_cast<ssize_t>(sizeof(inotify_event)))
        return {};

    inotify_event event = {};
    std::memcpy(&event, buffer.data(), sizeof(event));
    if (event.len == 0 || (event.mask & IN_CREATE) == 0)
        return {};

    const char* const nameBytes = buffer.data() + sizeof(event);
    const std::string name(nameBytes, ::strnlen(nameBytes, MaxNameBytes));
    return name.find(SenderDirectoryPrefix) != std::string::npos ? name : std::string();
}

} // namespace

const char* toString(Receiver::State state)
{
    switch (state)
    {
    case Receiver::State::Idle:
        return "idle";
    case Receiver::State::Connecting:
        return "connecting";
    case Receiver::State::Running:
        return "running";
    }
    return "unknown";
}

const char* toString(Receiver::StreamClockType type)
{
    switch (type)
    {
    case Receiver::StreamClockType::Undetermined:
        return "undetermined";
    case Receiver::StreamClockType::NoClock:
        return "no clock";
    case Receiver::StreamClockType::MonotonicSystemClock:
        return "monotonic system clock";
    case Receiver::StreamClockType::SyncedNetClock:
        return "synced net clock";
    }
    return "unknown";
}

Receiver::Receiver() = default;

Receiver::~Receiver()
{
    shutdownReceiver();
}

void Receiver::addDepayloader(Depayloader& depayloader)
{
    m_depayloaderList.addDepayloader(depayloader);
}

Receiver::State Receiver::getState() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_state;
}

void Receiver::setReceiverIsReadyCallback(
    std::function<void(Depayloader&, StreamClockType)> callback)
{
    m_receiverIsReadyCallback = std::move(callback);
}

void Receiver::setStateChangedCallback(std::function<void(State)> callback)
{
    m_stateChangedCallback = std::move(callback);
}

void Receiver::setConnectionAttemptFailedCallback(std::function<void()> callback)
{
    m_connectionAttemptFailedCallback = std::move(callback);
}

void Receiver::setMediaDataCallback(
    std::function<void(TimeValue, TimeValue, const Buffer&)> callback)
{
    m_mediaDataCallback = std::move(callback);
}

void Receiver::setNewSequenceCallback(std::function<void(Depayloader&)> callback)
{
    m_newSequenceCallback = std::move(callback);
}

void Receiver::setInitialInfoCheckCallback(
    std::function<std::optional<std::string>(const ByteView&, const PeerCredentials&)> callback)
{
    m_initialInfoCheckCallback = std::move(callback);
}

void Receiver::setMaxSidechannelMessageSize(std::uint32_t bytes)
{
    m_maxSidechannelMessageSize = bytes;
}

void Receiver::setRefusedFrameCallback(std::function<void(FrameRefusal)> callback)
{
    m_refusedFrameCallback = std::move(callback);
}

void Receiver::setBaseDirectory(std::string directory)
{
    m_baseDirectory = std::move(directory);
}

bool Receiver::initializeReceiver(std::string socketAddress)
{
    if (getState() != State::Idle)
        return true;

    if (const int error = createPipe(m_loopWakeupPipe))
    {
        LOG4CPLUS_ERROR(
            logger,
            "Could not create VLX receiver thread look wakeup pipe: " << describeError(error));
        return false;
    }

    LOG4CPLUS_TRACE(logger, "Setting up receiver with socket address \"" << socketAddress << '"');
    m_process = ::getpid();
    m_socketAddress = std::move(socketAddress);
    m_state = State::Connecting;
    m_connectingState = ConnectingState::NotConnected;
    m_keepRunning = true;
    m_receiverIsReadyReported = false;

    // If an exception leaves, from the callback or because a thread cannot be started, a receiver
    // without a worker is idle again.
    ScopeGuard workerGuard([this] { undoInitialization(); });
    if (m_stateChangedCallback)
        m_stateChangedCallback(State::Connecting);
    startThread();
    workerGuard.dismiss();
    startFsMonitorThread();
    LOG4CPLUS_DEBUG(logger, "Receiver initialized");
    return true;
}

void Receiver::undoInitialization()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    closePipe(m_loopWakeupPipe);
    m_keepRunning = false;
    m_connectingState = ConnectingState::Undefined;
    m_state = State::Idle;
}

/// Closes the copies of the descriptors and abandons the rest. Anything else, even a log line,
/// would affect the original or wait for a thread that does not exist here. State that the worker
/// changes without a lock may be inconsistent.
void Receiver::abandon()
{
    makeAnew(
        m_thread, m_fsMonitorThread, m_mutex, m_conditionVariable, m_depayloaderList, m_initialInfo,
        m_sidechannelBuffer);

    if (m_sideChannelSocketFD >= 0)
        ::close(m_sideChannelSocketFD);
    if (m_inotifyFD >= 0)
        ::close(m_inotifyFD);
    closePipe(m_loopWakeupPipe);
    m_sideChannelSocketFD = -1;
    m_inotifyFD = -1;
    m_inotifyWatch = -1;
    m_nanomsgMainFD = -1;
    m_nanomsgEndpointID = -1;
    m_keepRunning = false;
    m_connectingState = ConnectingState::Undefined;
    m_state = State::Idle;
}

void Receiver::shutdownReceiver()
{
    if (isForkedCopy(m_process))
    {
        abandon();
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_keepRunning = false;
    }
    stopFsMonitorThread();
    stopThread();
    LOG4CPLUS_DEBUG(logger, "Receiver shut down");
}

void Receiver::startThread()
{
    m_thread = std::thread(&Receiver::threadLoop, this);
}

void Receiver::stopThread()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_keepRunning = false;
        m_conditionVariable.notify_one();
        if (m_loopWakeupPipe[1] >= 0 && !writeWakeupByte(m_loopWakeupPipe))
            LOG4CPLUS_ERROR(logger, "Failed to write stop flag");
    }
    if (m_thread.joinable())
        m_thread.join();
}

void Receiver::threadLoop()
{
    nameThisThread("vlx-worker");
    LOG4CPLUS_DEBUG(logger, "Receiver thread started");
    while (iterate())
    {
    }

    // Before the lock is taken below: a clock callback in progress may be waiting for it, and must
    // end before the state that it uses is reset.
    m_syncedNetClock.stopSynchronization();
    setReceiverToIdle();

    if (m_connectionAttemptFailed)
    {
        LOG4CPLUS_DEBUG(logger, "Connection attempt failed; reporting this if a callback is set");
        if (m_connectionAttemptFailedCallback)
            m_connectionAttemptFailedCallback();
        m_connectionAttemptFailed = false;
    }
    LOG4CPLUS_DEBUG(logger, "Receiver thread stopped");
}

bool Receiver::iterate()
{
    if (!shouldKeepRunning())
        return false;

    switch (m_state.load())
    {
    case State::Connecting:
        return handleConnectingState();
    case State::Running:
        if (listenForInput())
            return true;
        LOG4CPLUS_DEBUG(
            logger,
            "Connection gone because of shutdown or because of an error; attempting to reconnect");
        // First: a clock callback must not see a partly reset connection.
        m_syncedNetClock.stopSynchronization();
        disconnectNanomsgMainChannel();
        disconnectSidechannel();
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            resetConnectionStates();
        }
        m_syncedNetClock.stopSynchronization();
        m_connectingState = ConnectingState::NotConnected;
        setState(State::Connecting, false);
        return true;
    case State::Idle:
        break;
    }
    return true;
}

bool Receiver::shouldKeepRunning() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_keepRunning;
}

void Receiver::setState(State newState, bool force)
{
    if (!force && m_state == newState)
        return;
    m_state = newState;
    if (m_stateChangedCallback)
        m_stateChangedCallback(newState);
}

void Receiver::resetConnectionStates()
{
    m_initialInfo = InitialInfo{};
    m_currentSequenceNr = 0;
    m_connectingState = ConnectingState::NotConnected;
    m_receiverIsReadyReported = false;
    m_sequenceAnnounced = false;
    m_depayloaderList.reset();
}

void Receiver::setReceiverToIdle()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state == State::Idle)
            return;

        closePipe(m_loopWakeupPipe);
        disconnectNanomsgMainChannel();
        disconnectSidechannel();
        resetConnectionStates();
        m_syncedNetClock.stopSynchronization();
        m_state = State::Idle;
    }
    if (m_stateChangedCallback)
        m_stateChangedCallback(State::Idle);
}

// NOLINTNEXTLINE(readability-function-size): its log lines carry this function's name
bool Receiver::handleConnectingState()
{
    assert(m_state == State::Connecting);

    switch (m_connectingState)
    {
    case ConnectingState::NotConnected:
        switch (connectSidechannel())
        {
        case ConnectionRetval::Success:
            LOG4CPLUS_DEBUG(logger, "Sidechannel to VLX sender established");
            m_connectingState = ConnectingState::WaitingForInitialInfo;
            return true;
        case ConnectionRetval::Retry:
            LOG4CPLUS_TRACE(
                logger,
                "Could not connect to VLX sender; retrying in " << ReconnectDelayMs << " ms");
            waitBeforeReconnect(true);
            return true;
        case ConnectionRetval::Failure:
            m_connectionAttemptFailed = true;
            return false;
        }
        return true;

    case ConnectingState::WaitingForInitialInfo:
        switch (listenForInitialInfo())
        {
        case InitialInfoRetval::Success:
            m_connectingState = ConnectingState::ConnectingMainChannel;
            return true;
        case InitialInfoRetval::Aborted:
            LOG4CPLUS_DEBUG(logger, "Aborting connection attempt");
            return false;
        case InitialInfoRetval::Failure:
            LOG4CPLUS_ERROR(logger, "Could not get initial info; restarting connection attempt");
            disconnectSidechannel();
            m_connectingState = ConnectingState::NotConnected;
            return true;
        case InitialInfoRetval::Refused:
            LOG4CPLUS_DEBUG(
                logger, "Initial info refused; retrying in " << ReconnectDelayMs << " ms");
            disconnectSidechannel();
            m_connectingState = ConnectingState::NotConnected;
            // Other users may be able to write to the base directory; they must not control the
            // retry rate.
            waitBeforeReconnect(false);
            return true;
        case InitialInfoRetval::Pending:
            return true;
        }
        return true;

    case ConnectingState::ConnectingMainChannel:
        switch (connectNanomsgMainChannel())
        {
        case ConnectionRetval::Success:
            LOG4CPLUS_DEBUG(
                logger, "Nanomsg channel to VLX sender established; switching to Running state");
            setState(State::Running, false);
            m_connectingState = ConnectingState::Connected;
            return true;
        case ConnectionRetval::Retry:
            LOG4CPLUS_TRACE(
                logger, "Could not connect to VLX sender nanomsg SP socket; retrying in "
                            << ReconnectDelayMs << " ms");
            ::usleep(ReconnectDelayMs * 1000);
            return true;
        case ConnectionRetval::Failure:
            m_connectionAttemptFailed = true;
            return false;
        }
        return true;

    case ConnectingState::Undefined:
    case ConnectingState::Connected:
        assert(false);
        break;
    }
    return true;
}

void Receiver::waitBeforeReconnect(bool endsWhenSenderAppears)
{
    m_senderAppeared = false;

    std::unique_lock<std::mutex> lock(m_mutex);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(ReconnectDelayMs);
    m_conditionVariable.wait_until(
        lock, deadline,
        [&] { return (endsWhenSenderAppears && m_senderAppeared) || !m_keepRunning; });
}

Receiver::ConnectionRetval Receiver::connectSidechannel()
{
    ScopeGuard sidechannelGuard([this] { disconnectSidechannel(); });

    if (m_sideChannelSocketFD < 0)
    {
        m_sideChannelSocketFD = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (m_sideChannelSocketFD < 0)
        {
            // The C library's text, even if another companion library has its own.
            const int error = errno;
            LOG4CPLUS_ERROR(
                logger, "Could not create sidechannel socket: " << std::strerror(error) << " ("
                                                                << error << ")");
            return ConnectionRetval::Failure;
        }
        setCloseOnExec(m_sideChannelSocketFD);
        keepUrgentBytesInLine(m_sideChannelSocketFD);
        limitConnectTime(m_sideChannelSocketFD);
        LOG4CPLUS_TRACE(logger, "Sidechannel socket established");
    }

    LOG4CPLUS_TRACE(logger, "Attempting to connect sidechannel");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const socklen_t addressLength = setAbstractName(address, m_socketAddress);
    if (::connect(
            m_sideChannelSocketFD, reinterpret_cast<const sockaddr*>(&address), addressLength) == 0)
    {
        sidechannelGuard.dismiss();
        LOG4CPLUS_DEBUG(logger, "Sidechannel connected with FD " << m_sideChannelSocketFD);
        return ConnectionRetval::Success;
    }

    const int error = errno;
    if (error == ENOENT || error == ECONNREFUSED)
    {
        // No sender listens yet: the usual case. The socket is reused for the next attempt.
        sidechannelGuard.dismiss();
        return ConnectionRetval::Retry;
    }
    LOG4CPLUS_ERROR(logger, "Could not connect to sender: " << describeError(error));
    return ConnectionRetval::Retry;
}

void Receiver::disconnectSidechannel()
{
    if (m_sideChannelSocketFD >= 0)
    {
        LOG4CPLUS_DEBUG(logger, "Closing sidechannel with FD " << m_sideChannelSocketFD);
        // Reset first: a copy that is forked meanwhile must not close another file's descriptor.
        closeConnection(std::exchange(m_sideChannelSocketFD, -1));
    }
    m_sidechannelMessageSize = ReadingPrefix;
    m_sidechannelBytesRead = 0;
}

// NOLINTNEXTLINE(readability-function-size): its log lines carry this function's name
Receiver::InitialInfoRetval Receiver::listenForInitialInfo()
{
    assert(m_sideChannelSocketFD >= 0);

    std::array<pollfd, 2> entries = {
        pollfd{m_loopWakeupPipe[0], POLLIN, 0}, pollfd{m_sideChannelSocketFD, POLLIN, 0}};
    const auto& [wakeupEntry, sidechannelEntry] = entries;
    LOG4CPLUS_DEBUG(logger, "Waiting for initial info");
    if (pollUninterrupted(entries.data(), entries.size(), NoTimeout) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(
            logger, "Could not poll for side channel activity to get initial info: "
                        << describeError(error));
        return InitialInfoRetval::Failure;
    }

    if (hasInput(wakeupEntry))
    {
        LOG4CPLUS_DEBUG(logger, "Loop wakeup activity; aborting wait for initial info");
        if (!drainWakeupPipe(m_loopWakeupPipe))
        {
            const int error = errno;
            LOG4CPLUS_ERROR(
                logger,
                "Error while receiving wakeup call over control pipe: " << describeError(error));
        }
        return InitialInfoRetval::Aborted;
    }
    if (!hasInput(sidechannelEntry))
        return InitialInfoRetval::Pending;

    LOG4CPLUS_DEBUG(logger, "Sidechannel activity; reading initial info");
    const int result = readSidechannelMessage();
    if (result == SidechannelGone)
        return InitialInfoRetval::Failure;
    if (result == MessageTooLong)
        return InitialInfoRetval::Refused;
    if (result != MessageComplete)
        return InitialInfoRetval::Pending;
    const std::optional<std::string> uri = checkInitialInfo();
    if (!uri)
        return InitialInfoRetval::Refused;

    LOG4CPLUS_DEBUG(
        logger,
        "Got initial info message with " << m_sidechannelBuffer.size() << " bytes; parsing");
    storeInitialInfo(parseInitialInfoPacket(m_sidechannelBuffer));
    LOG4CPLUS_DEBUG(
        logger, "VLX initial info:"
                    << "  VLX version: " << m_initialInfo.version
                    << "  time sync IP address: " << m_initialInfo.timeSyncIPAddress
                    << "  time sync port: " << m_initialInfo.timeSyncPort
                    << "  time sync protocol: " << toString(m_initialInfo.timeSyncProtocol)
                    << "  nanomsg protocol: " << toString(m_initialInfo.nanomsgProtocol)
                    << "  nanomsg URI: " << m_initialInfo.nanomsgURI);
    if (!uri->empty())
    {
        LOG4CPLUS_DEBUG(logger, "Using nanomsg URI " << *uri << " instead");
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_initialInfo.nanomsgURI = *uri;
    }

    m_syncedNetClock.stopSynchronization();
    if (m_initialInfo.timeSyncProtocol == TimeSyncProtocol::MonotonicSystemClock)
    {
        LOG4CPLUS_DEBUG(
            logger,
            "VLX time sync protocol is MonotonicSystemClock; no need to sync clocks, since sender "
            "and receiver use the same monotonic system clock");
        return InitialInfoRetval::Success;
    }
    if (m_initialInfo.timeSyncPort == 0)
    {
        LOG4CPLUS_DEBUG(logger, "VLX time sync port is zero; not starting time synchronization");
        return InitialInfoRetval::Success;
    }
    LOG4CPLUS_DEBUG(logger, "VLX time sync port is nonzero; starting time synchronization");
    startClockSynchronization();
    return InitialInfoRetval::Success;
}

/// @return the URI to use, empty for the announced one; not set if the sender is refused
std::optional<std::string> Receiver::checkInitialInfo()
{
    if (!m_initialInfoCheckCallback)
        return std::string();

    ucred peer{};
    socklen_t size = sizeof(peer);
    if (::getsockopt(m_sideChannelSocketFD, SOL_SOCKET, SO_PEERCRED, &peer, &size) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(
            logger, "Could not get the credentials of the sender: " << describeError(error));
        return std::nullopt;
    }
    return m_initialInfoCheckCallback(m_sidechannelBuffer, {peer.pid, peer.uid, peer.gid});
}

void Receiver::storeInitialInfo(InitialInfo info)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_initialInfo = std::move(info);
}

void Receiver::startClockSynchronization()
{
    // Before the stream runs and its sequence is announced there is nothing to report. The worker
    // checks the clock itself once it has announced a sequence, so no report is lost.
    auto onStateChange = [this]
    {
        if (m_state == State::Running && m_sequenceAnnounced)
            onClockSyncStateChange();
    };
    m_syncedNetClock.startSynchronization(
        m_initialInfo.timeSyncIPAddress, m_initialInfo.timeSyncPort, ClockWindowSize,
        ClockRoundTripLimitNs, std::move(onStateChange));
}

// NOLINTNEXTLINE(readability-function-size): its log lines carry this function's name
Receiver::ConnectionRetval Receiver::connectNanomsgMainChannel()
{
    assert(m_nanomsgMainFD < 0);
    ScopeGuard mainChannelGuard([this] { disconnectNanomsgMainChannel(); });

    const bool isPipeline = m_initialInfo.nanomsgProtocol == NanomsgProtocol::Pipeline;
    const std::string& uri = m_initialInfo.nanomsgURI;
    if (!isPipeline && m_initialInfo.nanomsgProtocol != NanomsgProtocol::PubSub)
        assert(false);

    m_nanomsgMainFD = ::nn_socket(AF_SP, isPipeline ? NN_PULL : NN_SUB);
    if (m_nanomsgMainFD < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not create nanomsg SP socket: " << describeError(error));
        return ConnectionRetval::Failure;
    }

    if (!isPipeline && ::nn_setsockopt(m_nanomsgMainFD, NN_SUB, NN_SUB_SUBSCRIBE, "", 0) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not set SP socket subscription: " << describeError(error));
        return ConnectionRetval::Failure;
    }
    m_nanomsgEndpointID = isPipeline ? ::nn_bind(m_nanomsgMainFD, uri.c_str())
                                     : ::nn_connect(m_nanomsgMainFD, uri.c_str());
    if (m_nanomsgEndpointID < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(
            logger, "Could not connect the nanomsg SP socket: " << describeError(error));
        return ConnectionRetval::Failure;
    }
    if (isPipeline && uri.starts_with(IpcScheme))
    {
        LOG4CPLUS_INFO(logger, "Changing the permissions of socket " << uri << " to 622");
        changeSocketFileMode(toSocketFilePath(uri), PipelineSocketMode);
    }

    setIntOption(m_nanomsgMainFD, NN_RCVBUF, NanomsgReceiveBufferBytes);
    setIntOption(m_nanomsgMainFD, NN_RCVMAXSIZE, NanomsgNoSizeLimit);

    std::size_t watchFDSize = sizeof(m_nanomsgWatchFD);
    if (::nn_getsockopt(m_nanomsgMainFD, NN_SOL_SOCKET, NN_RCVFD, &m_nanomsgWatchFD, &watchFDSize) <
        0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(
            logger, "Could not retrieve the nanosmg watch FD: " << describeError(error));
        ::nn_shutdown(m_nanomsgMainFD, m_nanomsgEndpointID);
        m_nanomsgEndpointID = -1;
        return ConnectionRetval::Failure;
    }

    mainChannelGuard.dismiss();
    LOG4CPLUS_DEBUG(logger, "Nanomsg watch FD: " << m_nanomsgWatchFD);
    return ConnectionRetval::Success;
}

void Receiver::disconnectNanomsgMainChannel()
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

// NOLINTNEXTLINE(readability-function-size): its log lines carry this function's name
bool Receiver::listenForInput()
{
    std::array<pollfd, 3> entries = {
        pollfd{m_loopWakeupPipe[0], POLLIN, 0}, pollfd{m_nanomsgWatchFD, POLLIN, 0},
        pollfd{m_sideChannelSocketFD, POLLIN, 0}};
    const auto& [wakeupEntry, mainChannelEntry, sidechannelEntry] = entries;
    LOG4CPLUS_TRACE(logger, "Listening for input");

    int numActive = 0;
    while (numActive == 0)
    {
        numActive = pollUninterrupted(entries.data(), entries.size(), InputTimeoutMs);
        if (numActive < 0)
        {
            const int error = errno;
            LOG4CPLUS_ERROR(
                logger, "Could not poll for side channel activity to get initial info: "
                            << describeError(error));
            return false;
        }
        if (numActive == 0 && m_connectingState == ConnectingState::NotConnected)
        {
            LOG4CPLUS_DEBUG(
                logger,
                "Sidechannel has been disconnected and no nanomsg activity is present - shutting "
                "down receiver");
            return false;
        }
    }

    if (hasInput(wakeupEntry))
    {
        LOG4CPLUS_TRACE(logger, "Loop wakup activity; aborting wait for input");
        if (!drainWakeupPipe(m_loopWakeupPipe))
        {
            const int error = errno;
            LOG4CPLUS_ERROR(
                logger,
                "Error while receiving wakeup call over control pipe: " << describeError(error));
            return false;
        }
        m_keepRunning = false;
        return true;
    }

    if (hasInput(mainChannelEntry))
    {
        LOG4CPLUS_TRACE(logger, "Nanomsg activity");
        NanomsgMessage message;
        if (!message.receive(m_nanomsgMainFD))
        {
            const int error = errno;
            LOG4CPLUS_ERROR(
                logger,
                "Error while trying to receive data through nanomsg: " << describeError(error));
            return false;
        }

        const ByteView packet = message.getBytes();
        switch (takePacket(packet))
        {
        case PacketResult::TooShort:
            LOG4CPLUS_ERROR(
                logger,
                "Received nanomsg VLX packet is too short: " << packet.size() << " byte(s)");
            return true;
        case PacketResult::Refused:
            LOG4CPLUS_TRACE(
                logger,
                "Dropping received nanomsg VLX packet with " << packet.size() << " byte(s)");
            return true;
        case PacketResult::NoMatchingDepayloader:
            LOG4CPLUS_WARN(
                logger, "Could not select an VLX depayloader for this stream; its packets will be "
                        "skipped");
            return true;
        case PacketResult::NoCurrentDepayloader:
            LOG4CPLUS_WARN(
                logger,
                "Dropping received nanomsg VLX Frame packet because no matching VLX depayloader "
                "was previously found");
            return true;
        case PacketResult::Error:
            LOG4CPLUS_ERROR(logger, "Error while consuming VLX packet");
            return false;
        case PacketResult::Consumed:
            break;
        }

        const PacketType type = m_depayloaderList.getCurrentPacketType();
        LOG4CPLUS_TRACE(
            logger, "Received nanomsg VLX packet with " << packet.size()
                                                        << " byte(s); type: " << toString(type));
        if (type == PacketType::SequenceInfo && !handleSequenceInfoPacket())
            return false;
        if (type == PacketType::Frame)
            handleFramePacket();
    }

    if (hasInput(sidechannelEntry))
    {
        LOG4CPLUS_TRACE(logger, "Sidechannel activity");
        assert(m_connectingState != ConnectingState::WaitingForInitialInfo);

        const int result = readSidechannelMessage();
        if (result == SidechannelGone || result == MessageTooLong)
        {
            // Packets that are still in the main channel are delivered before the connection is
            // closed.
            disconnectSidechannel();
            m_connectingState = ConnectingState::NotConnected;
            return true;
        }
        if (result != MessageComplete)
            return true;

        const ByteView packet(m_sidechannelBuffer);
        const PacketResult outcome = takePacket(packet);
        const PacketType type = m_depayloaderList.getCurrentPacketType();
        if (outcome != PacketResult::TooShort && outcome != PacketResult::Refused)
        {
            LOG4CPLUS_TRACE(
                logger, "Received sidechannel VLX packet with "
                            << packet.size() << " byte(s); type: " << toString(type));
        }
        switch (outcome)
        {
        case PacketResult::TooShort:
            LOG4CPLUS_ERROR(
                logger,
                "Received sidechannel VLX packet is too short: " << packet.size() << " byte(s)");
            return false;
        case PacketResult::Refused:
            LOG4CPLUS_DEBUG(
                logger,
                "Dropping received sidechannel VLX packet with " << packet.size() << " bytes");
            return true;
        case PacketResult::NoMatchingDepayloader:
            LOG4CPLUS_ERROR(
                logger, "Got a SequenceInfo packet, but no matching payloader was found");
            return false;
        case PacketResult::NoCurrentDepayloader:
            LOG4CPLUS_ERROR(logger, "Got a Frame packet, but no payloader is present");
            return false;
        case PacketResult::Error:
            LOG4CPLUS_ERROR(logger, "Error while consuming VLX packet");
            return false;
        case PacketResult::Consumed:
            break;
        }
        if (type == PacketType::SequenceInfo)
            return handleSequenceInfoPacket();
        if (type == PacketType::Frame)
        {
            LOG4CPLUS_ERROR(
                logger, "Got a Frame packet over the sidechannel; this is not supposed to happen!");
            handleFramePacket();
        }
    }
    return true;
}

Receiver::PacketResult Receiver::takePacket(const ByteView& packet)
{
    if (packet.size() < MinPacketBytes)
        return PacketResult::TooShort;
    if (!shouldPacketBeKept(packet))
        return PacketResult::Refused;

    switch (m_depayloaderList.consumePacket(packet))
    {
    case DepayloaderList::ConsumePacketRetcode::NoMatchingDepayloader:
        return PacketResult::NoMatchingDepayloader;
    case DepayloaderList::ConsumePacketRetcode::NoCurrentDepayloader:
        return PacketResult::NoCurrentDepayloader;
    case DepayloaderList::ConsumePacketRetcode::Error:
        return PacketResult::Error;
    case DepayloaderList::ConsumePacketRetcode::Ok:
        break;
    }
    return PacketResult::Consumed;
}

bool Receiver::shouldPacketBeKept(const ByteView& packet)
{
    const std::uint16_t sequenceNr = parsePacketSequenceNr(packet);
    const PacketType type = parsePacketType(packet);

    if (isSequenceNrTooOld(sequenceNr))
    {
        LOG4CPLUS_DEBUG(
            logger, "dropping VLX packet because it is too old (current sequence nr: "
                        << m_currentSequenceNr << " packet sequence nr: " << sequenceNr << ")");
        if (type == PacketType::Frame)
            reportRefusedFrame(FrameRefusal::TooOld);
        return false;
    }

    if (sequenceNr == m_currentSequenceNr)
    {
        if (type == PacketType::SequenceInfo)
        {
            LOG4CPLUS_DEBUG(
                logger,
                "dropping VLX SequenceInfo packet because it is redundant (both have the sequence "
                "number "
                    << m_currentSequenceNr << ")");
            return false;
        }
        return true;
    }

    if (type == PacketType::Frame)
    {
        LOG4CPLUS_DEBUG(
            logger,
            "dropping VLX Frame packet because its sequence number does not match the current one "
            "(current sequence nr: "
                << m_currentSequenceNr << " packet sequence nr: " << sequenceNr << ")");
        reportRefusedFrame(FrameRefusal::UnknownSequence);
        return false;
    }
    if (type == PacketType::SequenceInfo)
    {
        LOG4CPLUS_DEBUG(
            logger,
            "setting sequence nr " << sequenceNr << " of SequenceInfo packet as new current one");
        m_currentSequenceNr = sequenceNr;
        // Until this sequence is announced, the clock's thread must not report its depayloader,
        // which may still reject the codec header.
        m_sequenceAnnounced = false;
    }
    return true;
}

bool Receiver::isSequenceNrTooOld(unsigned short sequenceNr) const
{
    const bool noSequenceAdoptedYet = m_currentSequenceNr == 0;
    if (noSequenceAdoptedYet)
        return false;
    if (sequenceNr >= LowestNumberBeforeWrap && m_currentSequenceNr <= HighestNumberAfterWrap)
        return true;
    return sequenceNr < m_currentSequenceNr;
}

void Receiver::reportRefusedFrame(FrameRefusal refusal) const
{
    if (m_refusedFrameCallback)
        m_refusedFrameCallback(refusal);
}

bool Receiver::handleSequenceInfoPacket()
{
    Depayloader* const depayloader = m_depayloaderList.getCurrentDepayloader();
    if (depayloader == nullptr)
    {
        LOG4CPLUS_ERROR(
            logger,
            "No suitable VLX depayloader available; check that the PCM depayloader was added to "
            "the depayloader list");
        return false;
    }

    if (m_newSequenceCallback)
        m_newSequenceCallback(*depayloader);
    m_sequenceAnnounced = true;
    reportReceiverIsReady();
    return true;
}

void Receiver::handleFramePacket()
{
    if (!m_mediaDataCallback)
        return;

    const Buffer& mediaData = m_depayloaderList.getCurrentFrameMediaData();
    LOG4CPLUS_TRACE(
        logger, "Calling media data callback; media data size: " << mediaData.size() << " byte");
    m_mediaDataCallback(
        m_depayloaderList.getCurrentFrameTimestamp(), m_depayloaderList.getCurrentFrameDuration(),
        mediaData);
}

void Receiver::reportReceiverIsReady()
{
    assert(m_state == State::Running);

    if (m_receiverIsReadyReported)
        return;
    Depayloader* const depayloader = m_depayloaderList.getCurrentDepayloader();
    if (depayloader == nullptr)
    {
        LOG4CPLUS_DEBUG(logger, "VLX payloader not available yet; cannot report stream as ready");
        return;
    }
    // Checked after reading the depayloader: the worker clears the flag before it selects another
    // one, so this depayloader's sequence has been announced.
    if (!m_sequenceAnnounced)
        return;

    const StreamClockType clockType = getStreamClockType();
    bool isClockUsable = false;
    switch (clockType)
    {
    case StreamClockType::Undetermined:
        assert(false);
        break;
    case StreamClockType::NoClock:
    case StreamClockType::MonotonicSystemClock:
        isClockUsable = true;
        break;
    case StreamClockType::SyncedNetClock:
        isClockUsable = m_syncedNetClock.isSynchronized();
        break;
    }

    if (!isClockUsable || m_receiverIsReadyReported.exchange(true))
        return;
    if (m_receiverIsReadyCallback)
        m_receiverIsReadyCallback(*depayloader, clockType);
}

void Receiver::onClockSyncStateChange()
{
    reportReceiverIsReady();
}

Receiver::StreamClockType Receiver::getStreamClockType() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state != State::Running)
    {
        LOG4CPLUS_ERROR(
            logger,
            "Cannot query synced net clock availability unless the receiver is in the Running "
            "state");
        return StreamClockType::Undetermined;
    }
    if (m_initialInfo.timeSyncProtocol == TimeSyncProtocol::MonotonicSystemClock)
        return StreamClockType::MonotonicSystemClock;
    return m_initialInfo.timeSyncPort != 0 ? StreamClockType::SyncedNetClock
                                           : StreamClockType::NoClock;
}

TimeValue Receiver::getCurrentStreamTime() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_initialInfo.timeSyncProtocol == TimeSyncProtocol::MonotonicSystemClock)
        return miscUtils::getMonotonicSysclockTime();
    return m_syncedNetClock.getSynchronizedTime();
}

void Receiver::startFsMonitorThread()
{
    LOG4CPLUS_DEBUG(logger, __PRETTY_FUNCTION__);

    const std::string path = getBaseDirectory(m_baseDirectory);
    m_inotifyFD = ::inotify_init();
    setCloseOnExec(m_inotifyFD);
    m_inotifyWatch = ::inotify_add_watch(m_inotifyFD, path.c_str(), IN_CREATE | IN_EXCL_UNLINK);

    // Without the directory the monitor never notices a sender.
    if (DIR* const directory = ::opendir(path.c_str()))
    {
        const ScopeGuard directoryGuard([directory] { ::closedir(directory); });
        LOG4CPLUS_DEBUG(logger, "Opened " << path);
        const std::string name = findSenderDirectory(directory);
        if (!name.empty())
        {
            LOG4CPLUS_DEBUG(logger, "Sender " << name << " already created");
            m_senderAppeared = true;
            m_conditionVariable.notify_one();
        }
    }

    m_fsMonitorThread = std::thread(&Receiver::fsMonitorThreadLoop, this);
}

void Receiver::fsMonitorThreadLoop()
{
    nameThisThread("vlx-monitor");
    LOG4CPLUS_DEBUG(logger, __PRETTY_FUNCTION__);

    while (true)
    {
        pollfd entry = {m_inotifyFD, POLLIN, 0};
        const int numActive = ::poll(&entry, 1, MonitorTimeoutMs);
        if (!shouldKeepRunning())
            return;
        if (numActive <= 0 || entry.revents == 0)
            continue;

        const std::string name = readSenderEvent(m_inotifyFD);
        if (!name.empty())
        {
            LOG4CPLUS_DEBUG(
                logger, "Sender " << name << " initializing, signaling condition variable");
            // Set before the notification that wakes the worker.
            m_senderAppeared = true;
            m_conditionVariable.notify_one();
        }
    }
}

void Receiver::stopFsMonitorThread()
{
    LOG4CPLUS_DEBUG(logger, __PRETTY_FUNCTION__);

    if (m_fsMonitorThread.joinable())
        m_fsMonitorThread.join();
    if (m_inotifyFD >= 0)
    {
        ::inotify_rm_watch(m_inotifyFD, m_inotifyWatch);
        ::close(std::exchange(m_inotifyFD, -1));
    }
    m_inotifyWatch = -1;
}

int Receiver::readSidechannelMessage()
{
    std::size_t bytesRead = 0;

    if (m_sidechannelMessageSize == ReadingPrefix)
    {
        if (m_sidechannelBuffer.size() < PrefixBytes)
        {
            m_sidechannelBuffer.resize(PrefixBytes);
            m_sidechannelBytesRead = 0;
        }
        if (!readSomeFromSidechannel(
                m_sidechannelBuffer.data() + m_sidechannelBytesRead,
                PrefixBytes - m_sidechannelBytesRead, bytesRead))
            return SidechannelGone;

        m_sidechannelBytesRead += static_cast<std::uint32_t>(bytesRead);
        if (m_sidechannelBytesRead >= PrefixBytes)
        {
            std::memcpy(&m_sidechannelMessageSize, m_sidechannelBuffer.data(), PrefixBytes);
            if (m_maxSidechannelMessageSize != 0 &&
                m_sidechannelMessageSize > m_maxSidechannelMessageSize)
            {
                LOG4CPLUS_ERROR(
                    logger, "Received sidechannel VLX message is too long: "
                                << m_sidechannelMessageSize << " byte(s)");
                return MessageTooLong;
            }
            m_sidechannelBuffer.resize(m_sidechannelMessageSize);
            m_sidechannelBytesRead = 0;
        }
        return MessageIncomplete;
    }

    if (!readSomeFromSidechannel(
            m_sidechannelBuffer.data() + m_sidechannelBytesRead,
            m_sidechannelMessageSize - m_sidechannelBytesRead, bytesRead))
        return SidechannelGone;

    m_sidechannelBytesRead += static_cast<std::uint32_t>(bytesRead);
    if (bytesRead == 0 || m_sidechannelBytesRead < m_sidechannelMessageSize)
        return MessageIncomplete;
    m_sidechannelMessageSize = ReadingPrefix;
    m_sidechannelBytesRead = 0;
    return MessageComplete;
}

bool Receiver::readSomeFromSidechannel(void* buffer, std::size_t length, std::size_t& bytesRead)
{
    const ssize_t numBytes = receiveWithoutWaiting(m_sideChannelSocketFD, buffer, length);
    if (numBytes < 0 && errno == EAGAIN)
    {
        bytesRead = 0;
        return true;
    }
    if (numBytes == 0)
    {
        LOG4CPLUS_DEBUG(logger, "VLX sidechannel socket got closed");
        return false;
    }
    if (numBytes < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(
            logger, "Could not read data from VLX sidechannel socket: " << describeError(error));
        return false;
    }
    bytesRead = static_cast<std::size_t>(numBytes);
    return true;
}

} // namespace vlx
