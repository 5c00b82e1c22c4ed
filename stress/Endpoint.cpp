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

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Producer.hpp>

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

    // Of losses: when the frame before was sent, and the one after, and how many are missing.
    std::array<std::array<std::uint64_t, 3>, 256> bursts;
    std::array<std::uint64_t, 8'192> times; // a ring: age of a frame, or duration of a send

    void addFrame(TimeValue time)
    {
        times[frames % times.size()] = time;
        ++frames;
    }
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
    bool isUntagged = false; // another program's frames
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
        const auto limit =
            static_cast<rlim_t>(lowestFree) + static_cast<rlim_t>(options.freeDescriptors);
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

int produce(Board& board, const Options& options)
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
    PcmPayloader payloader;
    payloader.setNewFormat(48'000, 2, audioUtils::PcmFormat::S16LE);
    kit::Producer producer(wanted);
    if (!producer.open(payloader))
        return ExitRefused;
    board.ready = 1;
    while (!options.setUpOnly && options.waitReceivers != 0 &&
           (board.go == 0 || producer.checkReceivers() < options.waitReceivers))
        if (!letPass(TurnNs))
            return ExitDone;

    Buffer frame(FrameBytes);
    FrameTag tag = {static_cast<std::uint64_t>(::getpid()), 0};
    const TimeValue sequenceNs = options.sequenceEveryMs * NsPerMs;
    TimeValue due = miscUtils::getMonotonicSysclockTime();
    TimeValue sequenceDue = due + sequenceNs;
    board.incarnation = tag.incarnation;
    while (!options.setUpOnly)
    {
        const TimeValue before = miscUtils::getMonotonicSysclockTime();
        if (sequenceNs != 0 && before >= sequenceDue)
        {
            producer.setFormat(payloader);
            ++board.sequences;
            sequenceDue += sequenceNs;
        }
        std::memcpy(frame.data(), &tag, sizeof(tag));
        producer.send(before, FramePeriodNs, frame);
        const TimeValue now = miscUtils::getMonotonicSysclockTime();
        board.addFrame(now - before);
        // A sender that was paused goes on from here; a burst of late frames would be lost.
        due = std::max(due + FramePeriodNs, now);
        if (++tag.index == options.numFrames || !letPass(due - now))
            break;
    }
    return ExitDone;
}

/// What the callbacks of a consumer count.
struct Receipt
{
    Board& board;
    const bool isTagged;
    std::atomic<bool> isFirst = true; // of a connection
    FrameTag last = {};               // the receiving thread's, and so the next
    TimeValue lastTimestamp = 0;

    void onEvent(const kit::ConsumerEvent& event)
    {
        using Kind = kit::ConsumerEvent::Kind;
        if (std::getenv("VLX_STRESS_LOG") != nullptr)
            std::fprintf(stderr, "%s: %s\n", toString(event.kind), event.text.c_str());
        if (event.kind != Kind::Joined)
            board.ready = 0;
        board.joins += event.kind == Kind::Joined ? 1 : 0;
        board.stalls += event.kind == Kind::Stalled ? 1 : 0;
        board.failures += event.kind == Kind::Failed ? 1 : 0;
        isFirst = true;
    }

    void onFrame(const kit::Frame& frame)
    {
        // Frames without a tag are counted by their times.
        const auto gapNs = static_cast<std::uint64_t>(std::max<std::int64_t>(frame.gapNs, 0));
        FrameTag tag = {1, last.index + 1 + gapNs / FramePeriodNs};
        if (isTagged && frame.data.size() == FrameBytes)
            std::memcpy(&tag, frame.data.data(), sizeof(tag));

        if (tag.incarnation != board.incarnation)
        {
            board.incarnationSince = frame.arrival;
            board.incarnation = tag.incarnation;
        }
        const bool isInRun = !isFirst.exchange(false) && tag.incarnation == last.incarnation;
        if (isInRun && tag.index > last.index + 1)
        {
            const std::uint64_t count = tag.index - last.index - 1;
            board.lost += count;
            const std::uint64_t number = board.numBursts++;
            if (number < board.bursts.size())
                board.bursts[number] = {lastTimestamp, frame.timestamp, count};
        }
        last = tag;
        lastTimestamp = frame.timestamp;
        board.addFrame(frame.arrival - frame.timestamp);
    }
};

int consume(Board& board, const Options& options)
{
    Receipt receipt{board, !options.isUntagged};
    const auto onFormat = [&board](const kit::StreamFormat&)
    {
        ++board.sequences;
        board.ready = 1;
    };
    kit::Consumer consumer(
        {.name = options.name},
        {.onFrame = [&receipt](const kit::Frame& frame) { receipt.onFrame(frame); },
         .onFormat = onFormat,
         .onEvent = [&receipt](const kit::ConsumerEvent& event) { receipt.onEvent(event); }});
    if (!consumer.start())
        return ExitRefused;
    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    TimeValue rejoinDue = start;
    while (letPass(TurnNs))
    {
        const TimeValue now = miscUtils::getMonotonicSysclockTime();
        board.streamTime = consumer.getStreamTime();
        board.streamTimeAt = now;
        const bool isOver = now > start + StarvedLimitNs;
        if (options.setUpOnly && (board.frames > 0 || board.failures > 0 || isOver))
            break;
        if (options.rejoinEveryMs != 0 && now >= rejoinDue)
        {
            consumer.stop();
            consumer.start();
            rejoinDue = now + options.rejoinEveryMs * NsPerMs;
        }
    }
    consumer.stop();
    if (board.frames > 0 || !options.setUpOnly)
        return ExitDone;
    return board.failures > 0 ? ExitRefused : ExitStarved;
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
    using namespace vlx;
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
    consume->add_flag("--untagged", options.isUntagged);
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
    try
    {
        return produce->parsed() ? stress::produce(*board, options)
                                 : stress::consume(*board, options);
    }
    catch (const std::system_error&)
    {
        return ExitException;
    }
}
