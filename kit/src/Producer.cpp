#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlx/VlxPayload.hpp>
#include <vlx/VlxSender.hpp>
#include <vlxkit/BaseDirectory.hpp>
#include <vlxkit/Discovery.hpp>
#include <vlxkit/Producer.hpp>
#include <vlxkit/Text.hpp>

#include "Bell.hpp"
#include "CallScope.hpp"
#include "DeadDirectories.hpp"
#include "DirectoryLock.hpp"
#include "LibraryError.hpp"
#include "PrivateUmask.hpp"
#include "SharedFrames.hpp"
#include "SocketFile.hpp"
#include "TailWait.hpp"
#include "UnixSockets.hpp"
#include "base/AbstractName.hpp"
#include "base/ForkedCopy.hpp"
#include "base/OwnedDescriptor.hpp"
#include "base/SenderDirectory.hpp"

namespace vlx::kit
{

namespace
{

using Clock = std::chrono::steady_clock;

// If a sequence starts while a receiver is between its sidechannel and its main-channel connection,
// the receiver misses both announcements and then refuses every frame. This is common just after a
// sender has started, when all waiting receivers join at once. A receiver that joins this soon
// after a sequence therefore causes another announcement. Far longer than joining takes on a busy
// machine.
constexpr auto JoiningTime = std::chrono::seconds(1);

constexpr auto ReceiverCheckInterval = std::chrono::milliseconds(5);
// A waiting receiver joins 2 ms after the stream opens, so the check is more frequent at first.
constexpr auto PromptJoinTime = std::chrono::milliseconds(50);
constexpr auto PromptCheckInterval = std::chrono::milliseconds(1);

// Longer ones are no durations, and must not overflow the arithmetic.
constexpr TimeValue MaxTailWaitNs = 3600ULL * 1'000'000'000;

// Those of a sender, and of the transport when its first socket is made.
constexpr std::size_t NeededDescriptors = 16;

// How old a count of receivers may be that is not waited for.
constexpr auto MaxCountAge = std::chrono::milliseconds(100);

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox.Kit"));

bool isUsableName(const std::string& name)
{
    return !name.empty() && name.size() <= MaxSocketNameLength;
}

Status check(const ProducerOptions& options)
{
    if (!isUsableName(options.name) ||
        (!options.alternativeName.empty() && !isUsableName(options.alternativeName)))
        return {
            ErrorCode::NameInvalid,
            "the name of a stream has 1 to " + std::to_string(MaxSocketNameLength) + " bytes"};
    if (options.clockAddress.find('\0') != std::string::npos)
        return {ErrorCode::InvalidArgument, "the clock's address holds a 0 byte"};
    if (options.protocol != NanomsgProtocol::PubSub &&
        options.protocol != NanomsgProtocol::Pipeline)
        return {ErrorCode::InvalidArgument, "the stream's protocol is neither pubsub nor pipeline"};
    return {};
}

Status check(const StreamFormat& format)
{
    if (format.isSupported())
        return {};
    return {
        ErrorCode::InvalidArgument,
        "a stream needs a known sample format, a rate of at least 1 and at most " +
            std::to_string(StreamFormat::MaxRate) + " Hz, and 1 to " +
            std::to_string(StreamFormat::MaxChannels) + " channels"};
}

Status makeNameTaken(const std::string& name)
{
    return {ErrorCode::NameTaken, "the name " + quote(name) + " is taken by another sender"};
}

/// The transport aborts the process when it gets no descriptor, so they are counted before.
///
/// @return 0, or the system's error number if too few descriptors are left to open a stream
int findShortage()
{
    std::array<OwnedDescriptor, NeededDescriptors> descriptors;
    for (OwnedDescriptor& descriptor : descriptors)
    {
        descriptor = OwnedDescriptor(::eventfd(0, EFD_CLOEXEC));
        if (descriptor.get() < 0)
            return errno;
    }
    return 0;
}

} // unnamed namespace

class Producer::Impl
{
public:
    explicit Impl(ProducerOptions options)
        : m_options(std::move(options)),
          m_shared(m_options.sharedMemory, m_options.socketMode, m_options.protocol)
    {
    }

    Status open(const StreamFormat& format);
    Status open(Payloader& payloader);
    Status setFormat(const StreamFormat& format);
    Status setFormat(Payloader& payloader);
    Status announce();
    Status send(TimeValue timestamp, TimeValue duration, const ByteView& mediaData);
    FrameMemory acquire(std::size_t size) const
    {
        return m_shared.acquire(size);
    }

    std::size_t checkReceivers();
    Status waitForReceivers(std::size_t count, std::chrono::nanoseconds timeout);
    void interrupt(bool on);
    void stop();
    void close();
    ProducerStatistics getStatistics() const;

    const std::string& getName() const
    {
        return m_name;
    }

    const std::string& getSocketFile() const
    {
        return m_socketFile;
    }

    /// Asserts that no two threads use the producer at once.
    class Use
    {
    public:
        explicit Use(Impl& producer) : m_call(producer.m_isInUse)
        {
            assert(
                m_call.isAlone() &&
                "a Producer takes one thread: stop() and join it before close()");
        }

    private:
        const ExclusiveCall m_call;
    };

    /// @return whether another process has opened the stream, and this is a fork's copy
    bool isCopy() const
    {
        return isForkedCopy(m_process);
    }

private:
    Status open(Payloader& payloader, const std::optional<StreamFormat>& format);
    Status openStream();
    Status openSender();
    Status initializeSender(const std::string& name);
    Status publish(const std::string& name, std::unique_ptr<Sender> sender);
    Status protectStream();
    void shutDown();
    template <typename Call>
    bool callSender(Call call);
    Status setFormat(Payloader& payloader, const std::optional<StreamFormat>& format);
    Status makeRoom(const std::optional<ByteView>& frame, TimeValue duration);
    void usePayloader();
    Status announceNow();
    Status announceAfterInterruption();
    Status announceToNewcomers();
    void reportReceivers();
    std::size_t countReceivers(std::chrono::nanoseconds maxAge) const;
    Status checkClosed() const;
    Status checkUsable() const;
    bool isUsable() const;
    Status getStopReason() const;
    void notify(const std::string& notice) const;

    // Constant.
    const ProducerOptions m_options;

    // Of the producing thread.
    PcmPayloader m_pcmPayloader;
    Payloader* m_payloader = nullptr;     // of the sender, not owned
    std::optional<StreamFormat> m_format; // unset for a payloader of the caller's
    std::string m_baseDirectory;
    DirectoryLock m_directoryLock;
    Clock::time_point m_lastSequence;             // when it was started
    bool m_isSequenceNew = false;                 // less than the joining time ago
    std::size_t m_numConnections = 0;             // just before that, or at a later check
    std::optional<Clock::time_point> m_lastFrame; // when it was sent
    std::chrono::nanoseconds m_lastDuration{0};
    int m_announcementsDue = 0; // before the next frame; see announceAfterInterruption()
    std::size_t m_reportedReceivers = 0;
    std::set<std::uint64_t> m_reportedConnections;

    // Of any thread.
    SharedFrames m_shared; // by the producing thread, except for memory
    std::atomic<std::uint64_t> m_frames = 0;
    std::atomic<std::uint64_t> m_bytes = 0;
    std::atomic<std::uint64_t> m_sequences = 0;
    std::atomic<bool> m_stopped = false;
    std::atomic<bool> m_interrupted = false;
    std::atomic<std::uint64_t> m_interruptions = 0; // so far
    std::atomic<bool> m_isSending = false;          // in Pipeline
    std::atomic<pid_t> m_process = 0;               // that has opened the stream
    std::atomic<bool> m_isInUse = false;

    struct Count
    {
        std::size_t numReceivers = 0;
        Clock::time_point time;
        std::set<std::uint64_t> connections; // to the socket file, if they are known
    };

    // Guards what follows, not what the pointer points to. The producing thread changes pointer and
    // texts under the lock and reads them without.
    mutable std::mutex m_mutex;
    std::condition_variable m_stopRequested; // with m_mutex and m_stopped
    std::unique_ptr<Sender> m_sender;        // null while not open
    std::string m_name;
    std::string m_socketFile;
    mutable std::optional<Count> m_count;
};

Status Producer::Impl::open(const StreamFormat& format)
{
    if (Status status = checkClosed(); !status)
        return status;
    if (Status status = check(format); !status)
        return status;
    m_pcmPayloader.setNewFormat(format.rate, format.channels, format.sampleFormat);
    return open(m_pcmPayloader, format);
}

Status Producer::Impl::open(Payloader& payloader)
{
    if (Status status = checkClosed(); !status)
        return status;
    return open(payloader, std::nullopt);
}

Status Producer::Impl::open(Payloader& payloader, const std::optional<StreamFormat>& format)
{
    if (Status status = check(m_options); !status)
        return status;
    m_format = format;
    m_shared.setCodec(payloader, format);
    Status status = openStream();
    if (!status)
        shutDown();
    return status;
}

Status Producer::Impl::openStream()
{
    if (Status status = openSender(); !status)
        return status;
    // The sooner it comes, the fewer receivers have joined that could miss it. In Pipeline it waits
    // for those that are joining.
    usePayloader();
    if (Status status = announceNow(); !status)
        return status;
    if (Status status = protectStream(); !status)
        return status;
    // The name of shared memory is known only now. In Pipeline an announcement waits for connected
    // receivers, and this process was connected just now: it is sent with the first frame, which
    // may wait.
    if (m_options.protocol != NanomsgProtocol::Pipeline)
    {
        if (Status status = makeRoom(std::nullopt, 0); !status)
            return status;
    }
    return checkUsable();
}

/// Without the first sequence: what waits for others must not hold up other streams.
Status Producer::Impl::openSender()
{
    if (m_stopped || m_interrupted)
        return getStopReason();

    const BaseDirectory base =
        prepareBaseDirectory(BaseDirectoryUse::Send, m_options.baseDirectory);
    if (!base.status)
        return base.status;
    m_baseDirectory = base.path;
    removeOwnDeadDirectories(base.path);
    if (!base.notice.empty())
        notify(base.notice);

    const RealTimeScope realTime(m_options.realTime);
    if (!realTime.getStatus())
    {
        if (m_options.realTime.use == RealTimeUse::Require)
            return realTime.getStatus();
        notify(realTime.getStatus().getText());
    }

    if (!isNameTaken(m_options.name))
        return initializeSender(m_options.name);
    if (!m_options.alternativeName.empty() && !isNameTaken(m_options.alternativeName))
        return initializeSender(m_options.alternativeName);
    return makeNameTaken(m_options.name);
}

Status Producer::Impl::initializeSender(const std::string& name)
{
    if (const int error = findShortage())
        return {
            ErrorCode::OutOfResources,
            "cannot open the stream " + quote(name) + ": " + miscUtils::strerror_r_safe(error)};

    auto sender = std::make_unique<Sender>();
    m_process = ::getpid();
    sender->setBaseDirectory(m_baseDirectory);
    bool isInitialized = false;
    std::string reason;
    try
    {
        // Under a wider umask any process could join before the socket file gets its mode.
        runWithUmask(
            toUmask(m_options.socketMode),
            [&]
            {
                const LibraryError error; // of the thread that has that umask
                isInitialized = sender->initializeSender(
                    name, {}, m_options.clockAddress, m_options.clockPort, m_options.clock,
                    m_options.protocol);
                reason = error.getText();
            });
    }
    catch (const std::system_error& exception)
    {
        return {
            ErrorCode::OutOfResources, "cannot open the stream " + quote(name) +
                                           ": cannot start a thread: " + exception.what()};
    }
    if (!isInitialized && isNameTaken(name)) // in the meantime
        return makeNameTaken(name);
    if (!isInitialized)
        return {
            ErrorCode::Failed,
            "cannot open the stream " + quote(name) + (reason.empty() ? "" : ": " + reason)};
    return publish(name, std::move(sender));
}

/// From here on a stop finds the sender.
Status Producer::Impl::publish(const std::string& name, std::unique_ptr<Sender> sender)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_name = name;
        m_sender = std::move(sender);
    }
    return checkUsable();
}

Status Producer::Impl::protectStream()
{
    const std::string socketFile = findSocketFile(m_name);
    if (socketFile.empty())
        return {
            ErrorCode::Failed, "the stream " + quote(m_name) + " does not answer its own process"};
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_socketFile = socketFile;
    }
    Status status =
        protectSocketFile(socketFile, m_options.protocol, m_options.socketMode, m_directoryLock);
    if (status)
        ringBell(m_baseDirectory);
    return status;
}

Status Producer::Impl::setFormat(const StreamFormat& format)
{
    if (Status status = checkUsable(); !status)
        return status;
    if (m_format == format)
        return {};
    if (Status status = check(format); !status)
        return status;
    m_pcmPayloader.setNewFormat(format.rate, format.channels, format.sampleFormat);
    return setFormat(m_pcmPayloader, format);
}

Status Producer::Impl::setFormat(Payloader& payloader)
{
    if (Status status = checkUsable(); !status)
        return status;
    return setFormat(payloader, std::nullopt);
}

Status Producer::Impl::setFormat(Payloader& payloader, const std::optional<StreamFormat>& format)
{
    m_format = format;
    m_shared.setCodec(payloader, format);
    usePayloader();
    if (Status status = announceNow(); !status)
        return status;
    return makeRoom(std::nullopt, 0);
}

/// Announces again if frames begin to travel in shared memory, in other memory, or not any more.
Status Producer::Impl::makeRoom(const std::optional<ByteView>& frame, TimeValue duration)
{
    std::string notice;
    const bool hasChanged = m_shared.makeRoom(frame, duration, m_socketFile, notice);
    if (!notice.empty())
        notify(notice);
    if (!hasChanged)
        return {};
    usePayloader();
    return announceNow();
}

void Producer::Impl::usePayloader()
{
    Payloader* const payloader = &m_shared.getPayloader();
    if (std::exchange(m_payloader, payloader) != payloader)
        m_sender->setCurrentPayloader(*payloader);
}

Status Producer::Impl::announce()
{
    if (Status status = checkUsable(); !status)
        return status;
    return announceNow();
}

Status Producer::Impl::send(TimeValue timestamp, TimeValue duration, const ByteView& mediaData)
{
    if (!isUsable())
        return checkUsable();
    if (m_format && mediaData.size() % m_format->getBytesPerSample() != 0)
        return {
            ErrorCode::InvalidArgument,
            std::to_string(mediaData.size()) + " bytes of media data are not a whole number of " +
                "samples of " + std::to_string(m_format->getBytesPerSample()) + " bytes"};
    if (m_shared.isActive())
    {
        if (Status status = makeRoom(mediaData, duration); !status)
            return status;
    }
    if (m_announcementsDue > 0)
    {
        if (Status status = announceAfterInterruption(); !status)
            return status;
    }
    // Later no receiver can have missed the sequence, and the count takes locks.
    if (m_isSequenceNew)
    {
        if (Status status = announceToNewcomers(); !status)
            return status;
    }
    if (m_options.onReceivers)
        reportReceivers();

    if (!callSender([&] { m_sender->sendMediaData(timestamp, duration, mediaData); }))
        return getStopReason();
    m_lastFrame = Clock::now();
    m_lastDuration = std::chrono::nanoseconds(std::min(duration, MaxTailWaitNs));
    m_frames.fetch_add(1, std::memory_order_relaxed);
    m_bytes.fetch_add(mediaData.size(), std::memory_order_relaxed);
    return {};
}

std::size_t Producer::Impl::checkReceivers()
{
    if (m_sender == nullptr)
        return 0;
    static_cast<void>(announceToNewcomers());
    if (m_options.onReceivers)
        reportReceivers();
    const std::lock_guard<std::mutex> lock(m_mutex);
    return countReceivers(MaxCountAge);
}

/// Calls the sender, where it may block in Pipeline.
///
/// @return whether the call was neither stopped nor interrupted; see getStopReason()
template <typename Call>
bool Producer::Impl::callSender(Call call)
{
    if (m_options.protocol != NanomsgProtocol::Pipeline)
    {
        call();
        return !m_stopped;
    }
    const std::uint64_t interruptions = m_interruptions;
    bool isCalled = false;
    {
        // An interruption sees that the call is made, or is seen here.
        const ExclusiveCall mark(m_isSending);
        isCalled = isUsable();
        if (isCalled)
            call();
    }
    if (isCalled && interruptions == m_interruptions && isUsable())
        return true;
    m_announcementsDue = 2;
    return false;
}

/// An interrupted call may have lost an announcement, and may have left a byte in the sender's
/// wakeup pipe, which ends the next wait at once: what is sent then is lost. So an announcement is
/// sacrificed to that byte, and then repeated. Without a receiver the sender would not send it.
Status Producer::Impl::announceAfterInterruption()
{
    while (m_announcementsDue > 0)
    {
        if (Status status = waitForReceivers(1, std::chrono::nanoseconds(-1)); !status)
            return status;
        const int due = m_announcementsDue;
        if (Status status = announceNow(); !status)
            return status;
        m_announcementsDue = due - 1;
    }
    return {};
}

Status Producer::Impl::announceToNewcomers()
{
    const std::size_t before = std::exchange(m_numConnections, m_sender->getNumReceivers());
    m_isSequenceNew = m_isSequenceNew && Clock::now() - m_lastSequence < JoiningTime;
    if (m_numConnections <= before || !m_isSequenceNew)
        return {};
    // In Pipeline it waits until it is taken: not for one that has left again.
    if (m_options.protocol == NanomsgProtocol::Pipeline)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (countReceivers(std::chrono::nanoseconds::zero()) == 0)
            return {};
    }
    return announceNow();
}

void Producer::Impl::reportReceivers()
{
    std::size_t count = 0;
    std::size_t numNew = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        count = countReceivers(MaxCountAge);
        // More are connected than have joined while one of them is joining.
        if (m_count && m_count->connections.size() == count &&
            m_count->connections != m_reportedConnections)
        {
            for (const std::uint64_t connection : m_count->connections)
                numNew += m_reportedConnections.contains(connection) ? 0U : 1U;
            m_reportedConnections = m_count->connections;
        }
    }
    if (count <= m_reportedReceivers && numNew > 0)
        m_options.onReceivers(count - numNew);
    if (std::exchange(m_reportedReceivers, count) != count || numNew > 0)
        m_options.onReceivers(count);
}

/// nanomsg counts connections that left just after they had been made, for ever, and knows nothing
/// of the sidechannel. So what it says is an upper limit only: a receiver has both connections, and
/// its ends of them are open. That is looked up in the kernel, which takes some time: a count may
/// be used again for a while.
///
/// @param maxAge  of such a count
/// @pre m_mutex is held, and the stream is open
std::size_t Producer::Impl::countReceivers(std::chrono::nanoseconds maxAge) const
{
    const std::size_t numConnections = m_sender->getNumReceivers();
    const auto now = Clock::now();
    if (numConnections == 0)
    {
        m_count.reset();
        return 0;
    }
    if (m_count && now - m_count->time < maxAge)
        return m_count->numReceivers;

    const UnixSockets sockets = readUnixSockets();
    Count count{.numReceivers = numConnections, .time = now, .connections = {}};
    if (!sockets.isIncomplete)
    {
        count.numReceivers = std::min(count.numReceivers, countConnections(sockets, '\0' + m_name));
        if (auto connections = findConnectionsToFile(sockets, m_socketFile))
        {
            count.numReceivers = std::min(count.numReceivers, connections->size());
            count.connections = std::move(*connections);
        }
    }
    m_count = std::move(count);
    return m_count->numReceivers;
}

Status Producer::Impl::announceNow()
{
    m_numConnections = m_sender->getNumReceivers();
    const bool isDone = callSender([this] { m_sender->startNewSequence(); });
    m_lastSequence = Clock::now();
    m_isSequenceNew = true;
    if (!isDone)
        return getStopReason();
    m_sequences.fetch_add(1, std::memory_order_relaxed);
    return {};
}

Status Producer::Impl::waitForReceivers(std::size_t count, std::chrono::nanoseconds timeout)
{
    const auto start = Clock::now();
    const std::uint64_t interruptions = m_interruptions;
    while (true)
    {
        if (Status status = checkUsable(); !status)
            return status;
        if (interruptions != m_interruptions) // taken back already
            return getStopReason();
        if (Status status = announceToNewcomers(); !status)
            return status;
        if (m_options.onReceivers)
            reportReceivers();
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_numConnections >= count && countReceivers(std::chrono::nanoseconds::zero()) >= count)
            return checkUsable();
        const auto waited = Clock::now() - start;
        if (timeout >= timeout.zero() && waited >= timeout)
            return {ErrorCode::TimedOut, "too few receivers have joined in time"};
        m_stopRequested.wait_for(
            lock, waited < PromptJoinTime ? PromptCheckInterval : ReceiverCheckInterval,
            [this] { return m_stopped || m_interrupted; });
    }
}

void Producer::Impl::interrupt(bool on)
{
    if (isForkedCopy(m_process))
    {
        m_interrupted = on;
        return;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (on)
        ++m_interruptions;
    m_interrupted = on;
    // What does not block is not disabled: it would lose what is being sent.
    if (m_sender != nullptr && !m_stopped && (!on || m_isSending))
        m_sender->disableSend(on);
    if (on)
        m_stopRequested.notify_all();
}

void Producer::Impl::stop()
{
    if (isForkedCopy(m_process))
    {
        m_stopped = true;
        return;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stopped = true;
    if (m_sender != nullptr)
        m_sender->disableSend(true);
    m_stopRequested.notify_all();
}

void Producer::Impl::close()
{
    if (m_sender == nullptr)
        return;
    if (m_lastFrame && !isForkedCopy(m_process))
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_stopRequested.wait_until(
            lock, *m_lastFrame + getTailWait(m_lastDuration), [this] { return m_stopped.load(); });
        if (m_stopped)
        {
            lock.unlock();
            std::this_thread::sleep_until(*m_lastFrame + getTailWait({}));
        }
    }
    shutDown();
}

void Producer::Impl::shutDown()
{
    if (m_sender == nullptr)
        return;
    if (isForkedCopy(m_process)) // another thread may have held the lock, or waited
    {
        makeAnew(m_mutex, m_stopRequested, m_count, m_reportedConnections);
        m_shared.abandon();
    }
    m_sender->shutdownSender();
    m_shared.close();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sender.reset();
    m_payloader = nullptr;
    m_lastFrame.reset();
    m_directoryLock = {};
    m_count.reset();
    m_announcementsDue = 0;
    m_reportedReceivers = 0;
    m_reportedConnections.clear();
}

ProducerStatistics Producer::Impl::getStatistics() const
{
    ProducerStatistics statistics;
    statistics.frames = m_frames.load(std::memory_order_relaxed);
    statistics.bytes = m_bytes.load(std::memory_order_relaxed);
    statistics.sequences = m_sequences.load(std::memory_order_relaxed);
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_sender != nullptr)
        statistics.receivers = countReceivers(MaxCountAge);
    return statistics;
}

Status Producer::Impl::checkClosed() const
{
    if (m_sender == nullptr)
        return {};
    return {ErrorCode::AlreadyOpen, "the stream " + quote(m_name) + " is open already"};
}

/// Of an operation that was stopped or interrupted, even if the interruption was taken back.
Status Producer::Impl::getStopReason() const
{
    if (m_stopped)
        return {ErrorCode::Stopped, "stopped"};
    return {ErrorCode::Interrupted, "interrupted"};
}

/// Faster than checkUsable(), for each frame.
bool Producer::Impl::isUsable() const
{
    return m_sender != nullptr && !m_stopped && !m_interrupted;
}

/// @return success if the stream is open, and neither stopped nor interrupted
Status Producer::Impl::checkUsable() const
{
    if (m_stopped || m_interrupted)
        return getStopReason();
    if (m_sender == nullptr)
        return {ErrorCode::NotOpen, "the stream is not open"};
    return {};
}

void Producer::Impl::notify(const std::string& notice) const
{
    if (m_options.onNotice)
        m_options.onNotice(notice);
    else
        LOG4CPLUS_WARN(logger, notice);
}

Producer::Producer(ProducerOptions options) : m_impl(std::make_unique<Impl>(std::move(options))) {}

Producer::~Producer()
{
    if (m_impl)
        close();
}

Producer::Producer(Producer&& other) noexcept = default;

Producer& Producer::operator=(Producer&& other) noexcept
{
    const Producer former(std::move(*this));
    m_impl = std::move(other.m_impl);
    return *this;
}

Status Producer::open(const StreamFormat& format)
{
    const Impl::Use use(*m_impl);
    return m_impl->open(format);
}

Status Producer::open(Payloader& payloader)
{
    const Impl::Use use(*m_impl);
    return m_impl->open(payloader);
}

Status Producer::setFormat(const StreamFormat& format)
{
    const Impl::Use use(*m_impl);
    return m_impl->setFormat(format);
}

Status Producer::setFormat(Payloader& payloader)
{
    const Impl::Use use(*m_impl);
    return m_impl->setFormat(payloader);
}

Status Producer::announce()
{
    const Impl::Use use(*m_impl);
    return m_impl->announce();
}

Status Producer::send(TimeValue timestamp, TimeValue duration, const ByteView& mediaData)
{
    const Impl::Use use(*m_impl);
    return m_impl->send(timestamp, duration, mediaData);
}

FrameMemory Producer::acquire(std::size_t size)
{
    return m_impl->acquire(size);
}

std::size_t Producer::checkReceivers()
{
    const Impl::Use use(*m_impl);
    return m_impl->checkReceivers();
}

Status Producer::waitForReceivers(std::size_t count, std::chrono::nanoseconds timeout)
{
    const Impl::Use use(*m_impl);
    return m_impl->waitForReceivers(count, timeout);
}

void Producer::interrupt(bool on)
{
    m_impl->interrupt(on);
}

void Producer::stop()
{
    m_impl->stop();
}

void Producer::close()
{
    // A thread that used it has no copy in a child.
    std::optional<Impl::Use> use;
    if (!m_impl->isCopy())
        use.emplace(*m_impl);
    m_impl->close();
}

const std::string& Producer::getName() const
{
    return m_impl->getName();
}

const std::string& Producer::getSocketFile() const
{
    return m_impl->getSocketFile();
}

ProducerStatistics Producer::getStatistics() const
{
    return m_impl->getStatistics();
}

} // namespace vlx::kit
