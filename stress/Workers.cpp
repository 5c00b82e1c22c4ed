#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <vector>

#include <Bell.hpp>
#include <StallWatch.hpp>
#include <fcntl.h>
#include <grp.h>
#include <log4cplus/appender.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>
#include <vlxkit/PromptStop.hpp>

#include <miscUtils/MiscUtils.hpp>
#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxSender.hpp>

#include "Fleet.hpp"

namespace vlx::stress
{

namespace
{

constexpr uid_t FirstUnusedID = 100'000; // of users
constexpr TimeValue StallLimitNs = 2 * NsPerSecond;
constexpr int TurnMs = 20;
constexpr int StarvedLimitMs = 1'500;

/// What each frame begins with.
struct FrameTag
{
    std::uint64_t incarnation;
    std::uint64_t index;
};

/// Counts the library's log lines, and dies at the one that is asked for: a way to kill a process
/// at each step of a set-up.
class WatchingAppender : public log4cplus::Appender
{
public:
    explicit WatchingAppender(Slot& slot) : m_slot(slot) {}

    ~WatchingAppender() override
    {
        destructorImpl();
    }

    void close() override {}

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        if (event.getLogLevel() >= log4cplus::ERROR_LOG_LEVEL)
            ++m_slot.errorLines;
        if (++m_slot.logLines == m_slot.config.killAtLogLine)
            ::raise(SIGKILL);
    }

private:
    Slot& m_slot;
};

void configureLogging(Slot& slot)
{
    log4cplus::Logger::getRoot().addAppender(
        log4cplus::SharedAppenderPtr(new WatchingAppender(slot)));
    const bool isKilledByLog = slot.config.killAtLogLine != 0;
    log4cplus::Logger::getRoot().setLogLevel(
        isKilledByLog ? log4cplus::TRACE_LOG_LEVEL : log4cplus::ERROR_LOG_LEVEL);
    if (std::getenv("VLX_STRESS_LOG") == nullptr)
        return;
    log4cplus::Logger::getRoot().addAppender(
        log4cplus::SharedAppenderPtr(new log4cplus::ConsoleAppender(true, true)));
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::DEBUG_LOG_LEVEL);
}

/// Descriptors: leaves so many free ones. Threads: becomes another user first, since the limit does
/// not hold for root; one with no other processes, since they would count.
bool applyResourceLimit(const WorkerConfig& config)
{
    const uid_t id = FirstUnusedID + static_cast<uid_t>(::getpid());
    if (config.resource == NoResource)
        return true;

    rlim_t limit = config.resourceLimit;
    if (config.resource == RLIMIT_NOFILE)
    {
        const int lowestFree = ::open("/dev/null", O_RDONLY);
        ::close(lowestFree);
        limit += static_cast<rlim_t>(lowestFree);
    }
    else if (::setgroups(0, nullptr) < 0 || ::setgid(id) < 0 || ::setuid(id) < 0)
        return false;
    const rlimit limits = {limit, limit};
    return ::setrlimit(static_cast<__rlimit_resource>(config.resource), &limits) == 0;
}

class SenderWorker
{
public:
    SenderWorker(SharedBlock& block, Slot& slot) : m_block(block), m_slot(slot), m_frame(FrameBytes)
    {
        m_payloader.setNewFormat(48'000, 2, audioUtils::PcmFormat::S16LE);
    }

    int run()
    {
        const WorkerConfig& config = m_slot.config;
        const bool hasClock = config.clockPort != 0;
        if (!m_sender.initializeSender(
                config.name.data(), "", hasClock ? "127.0.0.1" : "", config.clockPort,
                hasClock ? TimeSyncProtocol::GstNetClock : TimeSyncProtocol::MonotonicSystemClock,
                config.protocol))
            return ExitRefused;
        m_sender.setCurrentPayloader(m_payloader);
        startSequence();
        kit::ringBell();
        m_slot.ready = true;
        if (config.setUpOnly)
            return ExitDone;

        waitForReceivers();
        sendFrames();
        letPass(TailMs);
        m_sender.shutdownSender();
        return ExitDone;
    }

    /// After an exception from the set-up.
    void shutDown()
    {
        m_sender.shutdownSender();
    }

private:
    static constexpr int TailMs = 100;

    void startSequence()
    {
        m_sender.startNewSequence();
        ++m_slot.sequences;
    }

    void waitForReceivers()
    {
        const std::size_t wanted = m_slot.config.waitForReceivers;
        while (wanted != 0 && (!m_slot.go || m_sender.getNumReceivers() < wanted))
            letPass(TurnMs);
        m_slot.incarnationSince = miscUtils::getMonotonicSysclockTime();
        m_slot.incarnation = ++m_block.lastIncarnation;
    }

    void sendFrames()
    {
        const WorkerConfig& config = m_slot.config;
        const TimeValue sequenceNs = config.sequenceEveryMs * NsPerMs;
        TimeValue due = miscUtils::getMonotonicSysclockTime();
        TimeValue sequenceDue = due + sequenceNs;
        FrameTag tag = {m_slot.incarnation, 0};
        while (config.numFrames == 0 || tag.index < config.numFrames)
        {
            if (sequenceNs != 0 && due >= sequenceDue)
            {
                startSequence();
                sequenceDue += sequenceNs;
            }
            sendOne(tag);
            ++tag.index;
            // A sender that was paused goes on from here; a burst of late frames would be lost.
            due = std::max(due + FramePeriodNs, miscUtils::getMonotonicSysclockTime());
            const timespec dueTime = {
                static_cast<time_t>(due / NsPerSecond), static_cast<long>(due % NsPerSecond)};
            ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &dueTime, nullptr);
        }
    }

    void sendOne(const FrameTag& tag)
    {
        std::memcpy(m_frame.data(), &tag, sizeof(tag));
        const TimeValue before = miscUtils::getMonotonicSysclockTime();
        m_sender.sendMediaData(before, FramePeriodNs, m_frame);
        const TimeValue after = miscUtils::getMonotonicSysclockTime();
        PhaseCounters& phase = m_slot.phases[m_block.phase];
        ++phase.frames;
        phase.times.add(after - before);
        m_slot.lastFrame = after;
    }

    SharedBlock& m_block;
    Slot& m_slot;
    Buffer m_frame;
    PcmPayloader m_payloader;
    Sender m_sender;
};

/// A receiver as the tools have it: with the stall watch, and with prompt stops.
class ReceiverWorker
{
public:
    ReceiverWorker(SharedBlock& block, Slot& slot) : m_block(block), m_slot(slot)
    {
        m_receiver.addDepayloader(m_depayloader);
        m_receiver.setStateChangedCallback([this](Receiver::State state) { onState(state); });
        m_receiver.setNewSequenceCallback(
            [this](Depayloader&)
            {
                ++m_slot.sequences;
                m_slot.ready = true;
            });
        m_receiver.setConnectionAttemptFailedCallback([this] { m_slot.gaveUp = true; });
        m_receiver.setMediaDataCallback([this](TimeValue timestamp, TimeValue, const Buffer& data)
                                        { onFrame(timestamp, data); });
    }

    int run()
    {
        if (!m_receiver.initializeReceiver(m_slot.config.name.data()))
            return ExitRefused;
        if (m_slot.config.setUpOnly)
            return watchStarved();

        TimeValue rejoinDue = getNextRejoin();
        while (true)
        {
            letPass(TurnMs);
            publishStreamTime();
            const TimeValue now = miscUtils::getMonotonicSysclockTime();
            if (m_stallWatch.isStalled(now))
            {
                ++m_slot.stallRestarts;
                m_stallWatch.onRestart();
                rejoin();
            }
            if (m_slot.config.rejoinEveryMs != 0 && now >= rejoinDue)
            {
                rejoin();
                rejoinDue = getNextRejoin();
            }
        }
    }

    void shutDown()
    {
        kit::stopPromptly(m_receiver);
    }

private:
    TimeValue getNextRejoin() const
    {
        return miscUtils::getMonotonicSysclockTime() + m_slot.config.rejoinEveryMs * NsPerMs;
    }

    void rejoin()
    {
        kit::stopPromptly(m_receiver);
        m_receiver.initializeReceiver(m_slot.config.name.data());
    }

    int watchStarved()
    {
        const bool hasFrames = waitUntil(
            StarvedLimitMs, [this] { return m_slot.countFrames() != 0 || m_slot.gaveUp; });
        kit::stopPromptly(m_receiver);
        if (m_slot.gaveUp)
            return ExitRefused;
        return hasFrames ? ExitDone : ExitStarved;
    }

    void publishStreamTime()
    {
        if (m_receiver.getState() != Receiver::State::Running)
            return;
        const TimeValue streamTime = m_receiver.getCurrentStreamTime();
        m_slot.streamTimeAt = miscUtils::getMonotonicSysclockTime();
        m_slot.streamTime = streamTime;
    }

    void onState(Receiver::State state)
    {
        m_last = {};
        if (state == Receiver::State::Running)
        {
            ++m_slot.joins;
            // Before its first frame a sender may well keep silent.
            if (m_slot.lastFrame != 0)
                m_stallWatch.onRunning(miscUtils::getMonotonicSysclockTime());
            return;
        }
        m_slot.ready = false;
        m_stallWatch.onNotRunning();
    }

    void onFrame(TimeValue timestamp, const Buffer& data)
    {
        const TimeValue now = miscUtils::getMonotonicSysclockTime();
        FrameTag tag = {};
        if (data.size() != FrameBytes)
            return;
        std::memcpy(&tag, data.data(), sizeof(tag));

        PhaseCounters& phase = m_slot.phases[m_block.phase];
        if (tag.incarnation != m_slot.incarnation)
        {
            m_slot.incarnationSince = now;
            m_slot.incarnation = tag.incarnation;
        }
        if (tag.incarnation == m_last.incarnation && tag.index > m_last.index + 1)
            noteLoss(phase, tag.index - m_last.index - 1, timestamp);
        m_last = tag;
        m_lastTimestamp = timestamp;
        ++phase.frames;
        phase.times.add(now - timestamp);
        m_slot.lastFrame = now;
        m_stallWatch.onFrame(now);
    }

    void noteLoss(PhaseCounters& phase, std::uint64_t count, TimeValue timestamp)
    {
        phase.lost += count;
        const std::uint32_t number = m_slot.numBursts++;
        if (number >= m_slot.bursts.size())
            return;
        LossBurst& burst = m_slot.bursts[number];
        burst.from = m_lastTimestamp;
        burst.until = timestamp;
        burst.count = count;
    }

    SharedBlock& m_block;
    Slot& m_slot;
    FrameTag m_last = {}; // the receiver's worker thread, and this one before it exists
    TimeValue m_lastTimestamp = 0;
    kit::StallWatch m_stallWatch{StallLimitNs};
    PcmDepayloader m_depayloader;
    Receiver m_receiver; // last: its callbacks use everything above
};

template <class Worker>
int runGuarded(SharedBlock& block, Slot& slot)
{
    Worker worker(block, slot);
    try
    {
        return worker.run();
    }
    catch (const std::system_error&)
    {
        worker.shutDown();
        return ExitException;
    }
}

} // namespace

int runWorker(SharedBlock& block, std::size_t index)
{
    const rlimit noCore = {0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    ::close(STDIN_FILENO);
    ::open("/dev/null", O_RDONLY);

    Slot& slot = block.slots[index];
    const log4cplus::Initializer logging;
    configureLogging(slot);
    if (!applyResourceLimit(slot.config))
        return ExitBroken;
    if (slot.config.role == Role::Sender)
        return runGuarded<SenderWorker>(block, slot);
    if (slot.config.role == Role::Receiver)
        return runGuarded<ReceiverWorker>(block, slot);
    return runHostilePeer(slot);
}

} // namespace vlx::stress
