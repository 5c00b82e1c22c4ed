/// One end of a stream under stress, a producer or a consumer as programs have them: built on the
/// kit, watched from outside. What it counts it writes into a board, memory that it shares with the
/// process that started it, so that nothing is lost when it is killed.

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <grp.h>
#include <log4cplus/appender.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Producer.hpp>

#include <miscUtils/MiscUtils.hpp>

namespace vlx::stress
{

namespace
{

constexpr TimeValue NsPerMs = 1'000'000;
constexpr TimeValue NsPerSecond = 1'000'000'000;
constexpr TimeValue FramePeriodNs = 10 * NsPerMs;
constexpr std::size_t FrameBytes = 1920;
constexpr TimeValue TurnNs = 20 * NsPerMs;
constexpr TimeValue StarvedLimitNs = 1'500 * NsPerMs;
constexpr uid_t FirstUnusedID = 100'000; // of users

enum ExitCode : int
{
    ExitDone = 0,
    ExitRefused = 10,   // the kit said no, or gave up
    ExitException = 11, // std::system_error, and shut down properly after it
    ExitStarved = 12,   // joined, but no frame came
    ExitBroken = 13,    // this program itself could not do its work
};

/// All that is counted. The layout is known to fleet.py as well.
struct Board
{
    using Number = std::atomic<std::uint64_t>;

    Number go;          // written from outside: the first frame may leave
    Number ready;       // Producer: open. Consumer: has a format
    Number frames;      // sent or received
    Number lost;        // missing between two frames of a connection
    Number numBursts;   // may exceed what fits
    Number incarnation; // of the producer whose frames come or go
    Number incarnationSince;
    Number joins;
    Number sequences;
    Number stalls;
    Number failures; // the consumer could not go on, and tries again
    Number logLines;
    Number errorLines;
    Number streamTime;   // of a consumer ...
    Number streamTimeAt; // ... and the system's at that moment

    struct Burst
    {
        Number from; // when the frame before was sent, and the one after
        Number until;
        Number count;
    };

    std::array<Burst, 256> bursts;
    std::array<Number, 8'192> times; // a ring: age of a frame, or duration of a send
};

struct Options
{
    std::string name;
    int boardFD = -1;
    unsigned killAtLine = 0; // dies by SIGKILL when the library logs its n-th line
    int freeDescriptors = -1;
    int maxThreads = -1;
    bool setUpOnly = false; // Producer: ends when it is open. Consumer: after its first frames
    bool isPipeline = false;
    bool isOpenToAll = false;
    std::uint64_t numFrames = 0; // 0: no end
    std::uint64_t sequenceEveryMs = 0;
    std::size_t waitReceivers = 0; // and for "go"
    std::uint16_t clockPort = 0;
    std::uint64_t rejoinEveryMs = 0;
};

/// What each frame begins with.
struct FrameTag
{
    std::uint64_t incarnation = 0;
    std::uint64_t index = 0;
};

/// Counts the log lines, and dies at the one that is asked for: a way to be killed at each step of
/// a set-up.
class WatchingAppender : public log4cplus::Appender
{
public:
    WatchingAppender(Board& board, unsigned killAtLine) : m_board(board), m_killAtLine(killAtLine)
    {
    }

    ~WatchingAppender() override
    {
        destructorImpl();
    }

    void close() override {}

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        if (event.getLogLevel() >= log4cplus::ERROR_LOG_LEVEL)
            ++m_board.errorLines;
        if (++m_board.logLines == m_killAtLine)
            ::raise(SIGKILL);
    }

private:
    Board& m_board;
    const unsigned m_killAtLine;
};

void configureLogging(Board& board, unsigned killAtLine)
{
    auto root = log4cplus::Logger::getRoot();
    root.addAppender(log4cplus::SharedAppenderPtr(new WatchingAppender(board, killAtLine)));
    root.setLogLevel(killAtLine != 0 ? log4cplus::TRACE_LOG_LEVEL : log4cplus::ERROR_LOG_LEVEL);
    if (std::getenv("VLX_STRESS_LOG") == nullptr)
        return;
    root.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::ConsoleAppender(true, true)));
    root.setLogLevel(log4cplus::DEBUG_LOG_LEVEL);
}

/// Descriptors: leaves so many free ones. Threads: becomes another user first, since the limit does
/// not hold for root; one with no other processes, since they would count.
bool applyLimits(const Options& options)
{
    if (options.freeDescriptors >= 0)
    {
        const int lowestFree = ::open("/dev/null", O_RDONLY);
        ::close(lowestFree);
        const auto limit = static_cast<rlim_t>(lowestFree + options.freeDescriptors);
        const rlimit limits = {limit, limit};
        return ::setrlimit(RLIMIT_NOFILE, &limits) == 0;
    }
    if (options.maxThreads < 0)
        return true;
    const uid_t id = FirstUnusedID + static_cast<uid_t>(::getpid());
    if (::setgroups(0, nullptr) < 0 || ::setgid(id) < 0 || ::setuid(id) < 0)
        return false;
    const auto limit = static_cast<rlim_t>(options.maxThreads);
    const rlimit limits = {limit, limit};
    return ::setrlimit(RLIMIT_NPROC, &limits) == 0;
}

/// Lets time pass, or takes the signal that asks for the end.
///
/// @return whether to go on
bool letPass(TimeValue nanoseconds)
{
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGTERM);
    const timespec duration = {
        static_cast<time_t>(nanoseconds / NsPerSecond),
        static_cast<long>(nanoseconds % NsPerSecond)};
    return ::sigtimedwait(&signals, nullptr, &duration) != SIGTERM;
}

class ProducingEnd
{
public:
    ProducingEnd(Board& board, const Options& options)
        : m_board(board), m_options(options), m_producer(makeProducerOptions(options))
    {
        m_payloader.setNewFormat(48'000, 2, audioUtils::PcmFormat::S16LE);
    }

    int run()
    {
        if (!m_producer.open(m_payloader))
        {
            std::fprintf(stderr, "%s\n", m_producer.getProblem().c_str());
            return ExitRefused;
        }
        m_board.ready = 1;
        if (m_options.setUpOnly)
            return ExitDone;
        while (m_options.waitReceivers != 0 &&
               (m_board.go == 0 || m_producer.checkReceivers() < m_options.waitReceivers))
            if (!letPass(TurnNs))
                return ExitDone;
        sendFrames();
        m_producer.close();
        return ExitDone;
    }

    void shutDown()
    {
        m_producer.close();
    }

private:
    static kit::ProducerOptions makeProducerOptions(const Options& options)
    {
        kit::ProducerOptions wanted;
        wanted.name = options.name;
        if (options.isPipeline)
            wanted.protocol = NanomsgProtocol::Pipeline;
        if (options.isOpenToAll)
            wanted.socketMode = kit::SocketMode::All;
        if (options.clockPort != 0)
        {
            wanted.clock = TimeSyncProtocol::GstNetClock;
            wanted.clockAddress = "127.0.0.1";
            wanted.clockPort = options.clockPort;
        }
        return wanted;
    }

    void sendFrames()
    {
        FrameTag tag = {static_cast<std::uint64_t>(::getpid()), 0};
        m_board.incarnationSince = miscUtils::getMonotonicSysclockTime();
        m_board.incarnation = tag.incarnation;
        TimeValue due = m_board.incarnationSince;
        const TimeValue sequenceNs = m_options.sequenceEveryMs * NsPerMs;
        TimeValue sequenceDue = due + sequenceNs;
        TimeValue now = due;
        do
        {
            const TimeValue before = miscUtils::getMonotonicSysclockTime();
            if (sequenceNs != 0 && due >= sequenceDue)
            {
                m_producer.setFormat(m_payloader);
                ++m_board.sequences;
                sequenceDue += sequenceNs;
            }
            std::memcpy(m_frame.data(), &tag, sizeof(tag));
            if (!m_producer.send(before, FramePeriodNs, m_frame))
                return;
            now = miscUtils::getMonotonicSysclockTime();
            m_board.times[m_board.frames % m_board.times.size()] = now - before;
            ++m_board.frames;
            // A sender that was paused goes on from here; a burst of late frames would be lost.
            due = std::max(due + FramePeriodNs, now);
        } while (++tag.index != m_options.numFrames && letPass(due - now));
    }

    Board& m_board;
    const Options& m_options;
    Buffer m_frame = Buffer(FrameBytes);
    PcmPayloader m_payloader;
    kit::Producer m_producer;
};

class ConsumingEnd
{
public:
    ConsumingEnd(Board& board, const Options& options)
        : m_board(board), m_options(options),
          m_consumer(
              {.name = options.name},
              {.onFrame = [this](const kit::Frame& frame) { onFrame(frame); },
               .onFormat =
                   [this](const kit::StreamFormat&)
               {
                   ++m_board.sequences;
                   m_board.ready = 1;
               },
               .onEvent = [this](const kit::ConsumerEvent& event) { onEvent(event); }})
    {
    }

    int run()
    {
        if (!m_consumer.start())
            return ExitRefused;
        const TimeValue start = miscUtils::getMonotonicSysclockTime();
        const TimeValue rejoinNs = m_options.rejoinEveryMs * NsPerMs;
        TimeValue rejoinDue = start + rejoinNs;
        while (letPass(TurnNs))
        {
            const TimeValue now = miscUtils::getMonotonicSysclockTime();
            m_board.streamTime = m_consumer.getStreamTime();
            m_board.streamTimeAt = now;
            const bool isOver = now > start + StarvedLimitNs;
            if (m_options.setUpOnly && (m_board.frames > 0 || m_board.failures > 0 || isOver))
                break;
            if (rejoinNs != 0 && now >= rejoinDue)
            {
                m_consumer.stop();
                m_consumer.start();
                rejoinDue = now + rejoinNs;
            }
        }
        m_consumer.stop();
        if (m_board.frames > 0 || !m_options.setUpOnly)
            return ExitDone;
        return m_board.failures > 0 ? ExitRefused : ExitStarved;
    }

    void shutDown()
    {
        m_consumer.stop();
    }

private:
    void onEvent(const kit::ConsumerEvent& event)
    {
        using Kind = kit::ConsumerEvent::Kind;
        if (std::getenv("VLX_STRESS_LOG") != nullptr)
            std::fprintf(stderr, "%s: %s\n", toString(event.kind), event.text.c_str());
        if (event.kind == Kind::Joined)
            ++m_board.joins;
        else
            m_board.ready = 0;
        if (event.kind == Kind::Stalled)
            ++m_board.stalls;
        if (event.kind == Kind::Failed)
            ++m_board.failures;
        m_isFirst = true;
    }

    void onFrame(const kit::Frame& frame)
    {
        FrameTag tag;
        if (frame.data.size() < sizeof(tag))
            return;
        std::memcpy(&tag, frame.data.data(), sizeof(tag));
        // Frames of the tool have no tag, but count themselves by their durations.
        if (frame.data.size() != FrameBytes)
            tag = {1, m_last.index + 1 + countMissing(frame)};

        if (tag.incarnation != m_board.incarnation)
        {
            m_board.incarnationSince = frame.arrival;
            m_board.incarnation = tag.incarnation;
        }
        const bool isInRun = tag.incarnation == m_last.incarnation && !m_isFirst.exchange(false);
        if (isInRun && tag.index > m_last.index + 1)
            noteLoss(tag.index - m_last.index - 1, frame.timestamp);
        m_last = tag;
        m_lastTimestamp = frame.timestamp;
        m_board.times[m_board.frames % m_board.times.size()] = frame.arrival - frame.timestamp;
        ++m_board.frames;
    }

    static std::uint64_t countMissing(const kit::Frame& frame)
    {
        if (frame.gapNs <= 0 || frame.duration == 0)
            return 0;
        return (static_cast<TimeValue>(frame.gapNs) + frame.duration / 2) / frame.duration;
    }

    void noteLoss(std::uint64_t count, TimeValue timestamp)
    {
        m_board.lost += count;
        const std::uint64_t number = m_board.numBursts++;
        if (number >= m_board.bursts.size())
            return;
        Board::Burst& burst = m_board.bursts[number];
        burst.from = m_lastTimestamp;
        burst.until = timestamp;
        burst.count = count;
    }

    Board& m_board;
    const Options& m_options;
    std::atomic<bool> m_isFirst = true; // of a connection
    FrameTag m_last = {};               // the receiving thread's, and so the next
    TimeValue m_lastTimestamp = 0;
    kit::Consumer m_consumer; // last: its callbacks use everything above
};

template <class End>
int runGuarded(Board& board, const Options& options)
{
    End end(board, options);
    try
    {
        return end.run();
    }
    catch (const std::system_error&)
    {
        end.shutDown();
        return ExitException;
    }
}

/// Populated: pages that come one by one would look like growth.
Board* mapBoard(int fd)
{
    constexpr int Flags = MAP_SHARED | MAP_POPULATE;
    void* const memory = ::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, Flags, fd, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<Board*>(memory);
}

} // unnamed namespace

} // namespace vlx::stress

int main(int argc, char** argv)
{
    using namespace vlx::stress;

    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    Options options;
    CLI::App app("An end of a stream, for the stress runs");
    CLI::App* const produce = app.add_subcommand("produce", "");
    CLI::App* const consume = app.add_subcommand("consume", "");
    app.require_subcommand(1);
    for (CLI::App* const command : {produce, consume})
    {
        command->add_option("name", options.name)->required();
        command->add_option("--board", options.boardFD)->required();
        command->add_option("--kill-at-line", options.killAtLine);
        command->add_option("--free-descriptors", options.freeDescriptors);
        command->add_option("--max-threads", options.maxThreads);
        command->add_flag("--set-up-only", options.setUpOnly);
    }
    produce->add_flag("--pipeline", options.isPipeline);
    produce->add_flag("--open-to-all", options.isOpenToAll);
    produce->add_option("--frames", options.numFrames);
    produce->add_option("--sequence-every", options.sequenceEveryMs);
    produce->add_option("--wait-receivers", options.waitReceivers);
    produce->add_option("--clock-port", options.clockPort);
    consume->add_option("--rejoin-every", options.rejoinEveryMs);
    CLI11_PARSE(app, argc, argv);

    Board* const board = mapBoard(options.boardFD);
    if (board == nullptr)
        return ExitBroken;
    ::close(options.boardFD);
    sigset_t signals; // blocked before any thread exists
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    const rlimit noCore = {0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    const log4cplus::Initializer logging;
    configureLogging(*board, options.killAtLine);
    if (!applyLimits(options))
        return ExitBroken;
    return produce->parsed() ? runGuarded<ProducingEnd>(*board, options)
                             : runGuarded<ConsumingEnd>(*board, options);
}
