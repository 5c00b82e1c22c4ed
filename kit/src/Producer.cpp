#include <algorithm>
#include <atomic>
#include <cassert>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include <AbstractName.hpp>
#include <ForkedCopy.hpp>
#include <SenderDirectory.hpp>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <unistd.h>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxSender.hpp>
#include <vlxkit/BaseDirectory.hpp>
#include <vlxkit/Discovery.hpp>
#include <vlxkit/Producer.hpp>
#include <vlxkit/Text.hpp>

#include "Bell.hpp"
#include "DeadDirectories.hpp"
#include "DirectoryLock.hpp"
#include "PrivateUmask.hpp"
#include "SocketFile.hpp"
#include "TailWait.hpp"
#include "UnixSockets.hpp"

namespace vlx::kit
{

namespace
{

using Clock = std::chrono::steady_clock;

// A receiver that is between its sidechannel and its main-channel connection when a sequence is
// started hears of it on neither, and then refuses every frame. That is common just after a sender
// has started, when all that waited for it join at once. So whoever joins so soon after a sequence
// has another one started, which he cannot miss any more. Far longer than joining takes on a busy
// machine.
constexpr auto JoiningTime = std::chrono::seconds(1);

constexpr auto ReceiverCheckInterval = std::chrono::milliseconds(5);
// A receiver that waits for the stream joins 2 ms after it opens: then it is looked for closely.
constexpr auto PromptJoinTime = std::chrono::milliseconds(50);
constexpr auto PromptCheckInterval = std::chrono::milliseconds(1);

// Longer ones are no durations, and must not overflow the arithmetic.
constexpr TimeValue MaxTailWaitNs = 3600ULL * 1'000'000'000;

// How old a count of receivers may be that is not waited for.
constexpr auto MaxCountAge = std::chrono::milliseconds(100);

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox.Kit"));

bool isUsableName(const std::string& name)
{
    return !name.empty() && name.size() <= MaxSocketNameLength;
}

std::string findProblem(const ProducerOptions& options)
{
    if (!isUsableName(options.name) ||
        (!options.alternativeName.empty() && !isUsableName(options.alternativeName)))
        return "the name of a stream has 1 to " + std::to_string(MaxSocketNameLength) + " bytes";
    if (options.clockAddress.find('\0') != std::string::npos)
        return "the clock's address holds a 0 byte";
    if (options.protocol != NanomsgProtocol::PubSub &&
        options.protocol != NanomsgProtocol::Pipeline)
        return "the stream's protocol is neither pubsub nor pipeline";
    return {};
}

std::string findProblem(const StreamFormat& format)
{
    if (format.isSupported())
        return {};
    return "a stream needs a known sample format, a rate of at least 1 and at most " +
           std::to_string(StreamFormat::MaxRate) + " Hz, and 1 to " +
           std::to_string(StreamFormat::MaxChannels) + " channels";
}

} // unnamed namespace

class Producer::Impl
{
public:
    explicit Impl(ProducerOptions options) : m_options(std::move(options)) {}

    bool open(const StreamFormat& format);
    bool open(Payloader& payloader);
    bool setFormat(const StreamFormat& format);
    bool setFormat(Payloader& payloader);
    bool send(TimeValue timestamp, TimeValue duration, const ByteView& mediaData);
    std::size_t checkReceivers();
    bool waitForReceivers(std::size_t count, std::chrono::nanoseconds timeout);
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

    const std::string& getProblem() const
    {
        return m_problem;
    }

    /// Asserts that no two threads use the producer at once.
    class Use
    {
    public:
        explicit Use(Impl& producer) : m_isInUse(producer.m_isInUse)
        {
            const bool wasInUse = m_isInUse.exchange(true, std::memory_order_acquire);
            assert(!wasInUse && "a Producer takes one thread: stop() and join it before close()");
        }

        ~Use()
        {
            m_isInUse.store(false, std::memory_order_release);
        }

        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

    private:
        std::atomic<bool>& m_isInUse;
    };

    /// @return whether another process has opened the stream, and this is a fork's copy
    bool isCopy() const
    {
        return isForkedCopy(m_process);
    }

private:
    bool openSender();
    bool initializeSender(const std::string& name);
    bool publish(const std::string& name, std::unique_ptr<Sender> sender);
    bool protectStream();
    void shutDown();
    void announce();
    void announceToNewcomers();
    std::size_t countReceivers(std::chrono::nanoseconds maxAge) const;
    bool isClosed();
    bool isUsable();
    bool fail(const std::string& problem);
    void notify(const std::string& notice) const;

    // Constant.
    const ProducerOptions m_options;

    // Of the producing thread.
    PcmPayloader m_pcmPayloader;
    Payloader* m_payloader = nullptr;     // current one, not owned
    std::optional<StreamFormat> m_format; // unset for a payloader of the caller's
    std::string m_baseDirectory;
    DirectoryLock m_directoryLock;
    std::string m_problem;
    Clock::time_point m_lastSequence;             // when it was started
    std::size_t m_numConnections = 0;             // just before that, or at a later check
    std::optional<Clock::time_point> m_lastFrame; // when it was sent
    std::chrono::nanoseconds m_lastDuration{0};

    // Of any thread.
    std::atomic<std::uint64_t> m_frames = 0;
    std::atomic<std::uint64_t> m_bytes = 0;
    std::atomic<std::uint64_t> m_sequences = 0;
    std::atomic<bool> m_stopped = false;
    std::atomic<pid_t> m_process = 0; // that has opened the stream
    std::atomic<bool> m_isInUse = false;

    struct Count
    {
        std::size_t numConnections; // of nanomsg
        std::size_t numReceivers;
        Clock::time_point time;
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

bool Producer::Impl::open(const StreamFormat& format)
{
    if (!isClosed())
        return false;
    const std::string problem = findProblem(format);
    if (!problem.empty())
        return fail(problem);
    m_pcmPayloader.setNewFormat(format.rate, format.channels, format.sampleFormat);
    if (!open(m_pcmPayloader))
        return false;
    m_format = format;
    return true;
}

bool Producer::Impl::open(Payloader& payloader)
{
    if (!isClosed())
        return false;
    const std::string problem = findProblem(m_options);
    if (!problem.empty())
        return fail(problem);

    m_problem.clear();
    m_payloader = &payloader;
    m_format.reset();
    if (openSender())
    {
        // The sooner it comes, the fewer receivers have joined that could miss it. In Pipeline it
        // waits for those that are joining.
        m_sender->setCurrentPayloader(payloader);
        announce();
        if (isUsable() && protectStream() && isUsable())
            return true;
    }
    shutDown();
    return false;
}

/// Without the first sequence: what waits for others must not hold up other streams.
bool Producer::Impl::openSender()
{
    if (m_stopped)
        return fail("stopped");

    const BaseDirectory base =
        prepareBaseDirectory(BaseDirectoryUse::Send, m_options.baseDirectory);
    if (!base.problem.empty())
        return fail(base.problem);
    m_baseDirectory = base.path;
    removeOwnDeadDirectories(base.path);
    if (!base.notice.empty())
        notify(base.notice);

    const RealTimeScope realTime(m_options.realTime);
    if (!realTime.getProblem().empty())
    {
        if (m_options.realTime.use == RealTimeUse::Require)
            return fail(realTime.getProblem());
        notify(realTime.getProblem());
    }

    if (!isNameTaken(m_options.name))
        return initializeSender(m_options.name);
    if (!m_options.alternativeName.empty() && !isNameTaken(m_options.alternativeName))
        return initializeSender(m_options.alternativeName);
    return fail("the name " + quote(m_options.name) + " is taken by another sender");
}

bool Producer::Impl::initializeSender(const std::string& name)
{
    auto sender = std::make_unique<Sender>();
    m_process = ::getpid();
    sender->setBaseDirectory(m_baseDirectory);
    bool isInitialized = false;
    try
    {
        // Under a wider umask any process could join before the socket file gets its mode.
        runWithUmask(
            toUmask(m_options.socketMode),
            [&]
            {
                isInitialized = sender->initializeSender(
                    name, {}, m_options.clockAddress, m_options.clockPort, m_options.clock,
                    m_options.protocol);
            });
        if (!isInitialized)
            return fail("cannot open the stream " + quote(name) + "; the library's log says why");
    }
    catch (const std::system_error& error)
    {
        return fail("cannot open the stream " + quote(name) + ": " + error.what());
    }
    return publish(name, std::move(sender));
}

/// From here on a stop finds the sender.
bool Producer::Impl::publish(const std::string& name, std::unique_ptr<Sender> sender)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_name = name;
        m_sender = std::move(sender);
    }
    return isUsable();
}

bool Producer::Impl::protectStream()
{
    const std::string socketFile = findSocketFile(m_name);
    if (socketFile.empty())
        return fail("the stream " + quote(m_name) + " does not answer its own process");
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_socketFile = socketFile;
    }
    const std::string problem =
        protectSocketFile(socketFile, m_options.protocol, m_options.socketMode, m_directoryLock);
    if (!problem.empty())
        return fail(problem);
    ringBell(m_baseDirectory);
    return true;
}

bool Producer::Impl::setFormat(const StreamFormat& format)
{
    if (!isUsable())
        return false;
    if (m_format == format)
        return true;
    const std::string problem = findProblem(format);
    if (!problem.empty())
        return fail(problem);
    m_pcmPayloader.setNewFormat(format.rate, format.channels, format.sampleFormat);
    const bool done = setFormat(m_pcmPayloader);
    m_format = format;
    return done;
}

bool Producer::Impl::setFormat(Payloader& payloader)
{
    if (!isUsable())
        return false;
    m_format.reset();
    if (m_payloader != &payloader)
    {
        m_payloader = &payloader;
        m_sender->setCurrentPayloader(payloader);
    }
    announce();
    return isUsable();
}

bool Producer::Impl::send(TimeValue timestamp, TimeValue duration, const ByteView& mediaData)
{
    if (!isUsable())
        return false;
    if (m_format && mediaData.size() % m_format->getBytesPerSample() != 0)
        return fail(
            std::to_string(mediaData.size()) + " bytes of media data are not a whole number of " +
            "samples of " + std::to_string(m_format->getBytesPerSample()) + " bytes");
    // Later nobody can have missed the sequence, and the count takes locks.
    if (Clock::now() - m_lastSequence < JoiningTime)
        announceToNewcomers();

    m_sender->sendMediaData(timestamp, duration, mediaData);
    if (!isUsable())
        return false;
    m_lastFrame = Clock::now();
    m_lastDuration = std::chrono::nanoseconds(std::min(duration, MaxTailWaitNs));
    m_frames.fetch_add(1, std::memory_order_relaxed);
    m_bytes.fetch_add(mediaData.size(), std::memory_order_relaxed);
    return true;
}

std::size_t Producer::Impl::checkReceivers()
{
    if (m_sender == nullptr)
        return 0;
    announceToNewcomers();
    const std::lock_guard<std::mutex> lock(m_mutex);
    return countReceivers(MaxCountAge);
}

void Producer::Impl::announceToNewcomers()
{
    const std::size_t before = std::exchange(m_numConnections, m_sender->getNumReceivers());
    if (m_numConnections <= before || Clock::now() - m_lastSequence >= JoiningTime)
        return;
    // In Pipeline it waits until it is taken: not for one that has left again.
    if (m_options.protocol == NanomsgProtocol::Pipeline)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (countReceivers(std::chrono::nanoseconds::zero()) == 0)
            return;
    }
    announce();
}

/// nanomsg counts connections that left just after they had been made, for ever, and knows nothing
/// of the sidechannel. So what it says is an upper limit only: a receiver has both connections, and
/// its ends of them are open. That is looked up in the kernel, which takes some time: a count may
/// be used again for a while, unless nanomsg's has changed.
///
/// @param maxAge  of such a count
/// @pre m_mutex is held, and the stream is open
std::size_t Producer::Impl::countReceivers(std::chrono::nanoseconds maxAge) const
{
    const std::size_t numConnections = m_sender->getNumReceivers();
    const auto now = Clock::now();
    if (numConnections == 0)
        return 0;
    if (m_count && m_count->numConnections == numConnections && now - m_count->time < maxAge)
        return m_count->numReceivers;

    const UnixSockets sockets = readUnixSockets();
    std::size_t numReceivers = numConnections;
    if (!sockets.isIncomplete)
    {
        numReceivers = std::min(numReceivers, countConnections(sockets, '\0' + m_name));
        numReceivers = std::min(
            numReceivers, countConnectionsToFile(sockets, m_socketFile).value_or(numReceivers));
    }
    m_count = {numConnections, numReceivers, now};
    return numReceivers;
}

void Producer::Impl::announce()
{
    m_numConnections = m_sender->getNumReceivers();
    m_sender->startNewSequence();
    m_lastSequence = Clock::now();
    m_sequences.fetch_add(1, std::memory_order_relaxed);
}

bool Producer::Impl::waitForReceivers(std::size_t count, std::chrono::nanoseconds timeout)
{
    const auto start = Clock::now();
    while (isUsable())
    {
        announceToNewcomers();
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_numConnections >= count && countReceivers(std::chrono::nanoseconds::zero()) >= count)
            return !m_stopped || fail("stopped");
        const auto waited = Clock::now() - start;
        if (timeout != timeout.zero() && waited >= timeout)
            return fail("too few receivers have joined in time");
        m_stopRequested.wait_for(
            lock, waited < PromptJoinTime ? PromptCheckInterval : ReceiverCheckInterval,
            [this] { return m_stopped.load(); });
    }
    return false;
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
        makeAnew(m_mutex, m_stopRequested);
    m_sender->shutdownSender();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sender.reset();
    m_lastFrame.reset();
    m_directoryLock = {};
    m_count.reset();
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

bool Producer::Impl::isClosed()
{
    return m_sender == nullptr || fail("the stream " + quote(m_name) + " is open already");
}

/// @return whether the stream is open and not being stopped; otherwise the problem says it
bool Producer::Impl::isUsable()
{
    if (m_stopped)
        return fail("stopped");
    if (m_sender == nullptr)
        return fail("the stream is not open");
    return true;
}

bool Producer::Impl::fail(const std::string& problem)
{
    m_problem = problem;
    return false;
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
    close();
}

bool Producer::open(const StreamFormat& format)
{
    const Impl::Use use(*m_impl);
    return m_impl->open(format);
}

bool Producer::open(Payloader& payloader)
{
    const Impl::Use use(*m_impl);
    return m_impl->open(payloader);
}

bool Producer::setFormat(const StreamFormat& format)
{
    const Impl::Use use(*m_impl);
    return m_impl->setFormat(format);
}

bool Producer::setFormat(Payloader& payloader)
{
    const Impl::Use use(*m_impl);
    return m_impl->setFormat(payloader);
}

bool Producer::send(TimeValue timestamp, TimeValue duration, const ByteView& mediaData)
{
    const Impl::Use use(*m_impl);
    return m_impl->send(timestamp, duration, mediaData);
}

std::size_t Producer::checkReceivers()
{
    const Impl::Use use(*m_impl);
    return m_impl->checkReceivers();
}

bool Producer::waitForReceivers(std::size_t count, std::chrono::nanoseconds timeout)
{
    const Impl::Use use(*m_impl);
    return m_impl->waitForReceivers(count, timeout);
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

const std::string& Producer::getProblem() const
{
    return m_impl->getProblem();
}

ProducerStatistics Producer::getStatistics() const
{
    return m_impl->getStatistics();
}

} // namespace vlx::kit
