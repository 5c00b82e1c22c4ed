/// One end of a stream under stress, a producer or a consumer as programs have them: built on the
/// kit, watched from outside. What it counts it writes into a board, memory that it shares with the
/// process that started it, so that nothing is lost when it is killed. Its plan is its argument, a
/// JSON object.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <grp.h>
#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>
#include <nlohmann/json.hpp>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>
#include <vlxkit/Producer.hpp>

namespace vlx::stress
{

/// What an end is to do, under the names that fleet.py gives.
struct Plan
{
    std::string role; // "produce" or "consume"
    std::string name;
    int board = -1;       // descriptor
    unsigned kill = 0;    // dies by SIGKILL when the library logs its n-th line
    int descriptors = -1; // how many free ones there are; -1: no limit
    int threads = -1;     // RLIMIT_NPROC; -1: no limit
    bool log = false;     // show the library's
    bool pipeline = false;
    bool shared = false;          // other users may join
    bool ring = false;            // frames travel in shared memory, every other one without a copy
    std::size_t bytes = 1920;     // of a frame
    std::uint64_t frames = 0;     // ends after so many; 0: no end
    std::uint64_t resequence = 0; // period of new sequences, milliseconds
    std::size_t receivers = 0;    // that the first frame waits for, and for "go"
    std::uint16_t port = 0;       // of the network clock
    std::uint64_t rejoin = 0;     // period, milliseconds
};

// One name in a line would be a page.
// clang-format off
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(
    Plan, role, name, board, kill, descriptors, threads, log, pipeline, shared, ring, bytes, frames,
    resequence, receivers, port, rejoin)
// clang-format on

namespace
{

constexpr TimeValue NsPerMs = 1'000'000;
constexpr TimeValue FramePeriodNs = 10 * NsPerMs;
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
    Number stop;        // written from outside; Death: a producer dies while it fills a frame
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
    Number last;        // frame of the producer, counted by it from 1
    Number missing;     // between two frames, by their times
    Number overwritten; // in shared memory
    Number mixed;       // not filled with their own numbers
    Number clockOffset; // of a consumer's stream time to the system's; 0: there is none

    // Of losses: stamp and arrival of the frame before, arrival of the one after, and how many are
    // missing.
    std::array<std::array<std::uint64_t, 4>, 256> bursts;
    std::array<std::uint64_t, 8'192> times; // a ring: age of a frame, or duration of a send

    static constexpr std::uint64_t Death = 2;

    void addFrame(TimeValue time)
    {
        times[frames % times.size()] = time;
        ++frames;
    }
};

/// What each frame begins with.
struct FrameTag
{
    std::uint64_t incarnation = 0;
    std::uint64_t index = 0;
};

/// Counts the log lines and kills the process at a given one, to test each step of a set-up.
void watchLog(Board& board, const Plan& plan)
{
    const auto watch = [&board, plan](const log4cplus::spi::InternalLoggingEvent& event)
    {
        board.errorLines += event.getLogLevel() >= log4cplus::ERROR_LOG_LEVEL ? 1 : 0;
        if (++board.logLines == plan.kill)
            ::raise(SIGKILL);
        return plan.log ? log4cplus::spi::NEUTRAL : log4cplus::spi::DENY;
    };
    log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox"));
    logger.getAllAppenders().front()->addFilter(watch);
}

bool limit(decltype(RLIMIT_NOFILE) resource, int value)
{
    const rlimit limits = {static_cast<rlim_t>(value), static_cast<rlim_t>(value)};
    return ::setrlimit(resource, &limits) == 0;
}

/// Descriptors: leaves so many free ones. Threads: becomes another user first, since the limit does
/// not hold for root; one with no other processes, since they would count.
bool applyLimits(const Plan& plan)
{
    const int lowestFree = ::dup(STDIN_FILENO);
    ::close(lowestFree);
    if (plan.descriptors >= 0)
        return limit(RLIMIT_NOFILE, lowestFree + plan.descriptors);
    const uid_t id = FirstUnusedID + static_cast<uid_t>(::getpid());
    return plan.threads < 0 || (::setgroups(0, nullptr) == 0 && ::setgid(id) == 0 &&
                                ::setuid(id) == 0 && limit(RLIMIT_NPROC, plan.threads));
}

/// @return whether to go on
bool letPass(const Board& board, TimeValue nanoseconds)
{
    std::this_thread::sleep_for(std::chrono::nanoseconds(nanoseconds));
    return board.stop == 0 || board.stop == Board::Death;
}

/// Fills a frame with its number, behind its tag.
void fill(std::uint8_t* frame, std::size_t size, const FrameTag& tag, const Board& board)
{
    const auto number = static_cast<std::uint8_t>(tag.index);
    std::fill_n(frame, size / 2, number);
    std::memcpy(frame, &tag, sizeof(tag));
    if (board.stop == Board::Death)
        ::raise(SIGKILL);
    std::fill_n(frame + size / 2, size - size / 2, number);
}

bool isFilled(const Buffer& frame, const FrameTag& tag)
{
    const auto number = static_cast<std::uint8_t>(tag.index);
    return std::all_of(
        frame.begin() + sizeof(tag), frame.end(),
        [&](std::uint8_t byte) { return byte == number; });
}

int produce(Board& board, const Plan& plan)
{
    const bool hasNetClock = plan.port != 0;
    kit::Producer producer({
        .name = plan.name,
        .protocol = plan.pipeline ? NanomsgProtocol::Pipeline : NanomsgProtocol::PubSub,
        .clock =
            hasNetClock ? TimeSyncProtocol::GstNetClock : TimeSyncProtocol::MonotonicSystemClock,
        .clockAddress = hasNetClock ? "127.0.0.1" : "",
        .clockPort = plan.port,
        .socketMode = plan.shared ? kit::SocketMode::All : kit::SocketMode::Owner,
        .sharedMemory =
            {.carriage = plan.ring ? kit::Carriage::Shared : kit::Carriage::Inline,
             .frameBytes = plan.bytes,
             .frameDuration = std::chrono::nanoseconds(FramePeriodNs)},
    });
    PcmPayloader payloader;
    payloader.setNewFormat(48'000, 2, audioUtils::PcmFormat::S16LE);
    if (!producer.open(payloader))
        return ExitRefused;
    board.ready = 1;
    while (plan.receivers != 0 && (board.go == 0 || producer.checkReceivers() < plan.receivers))
        if (!letPass(board, TurnNs))
            return ExitDone;

    Buffer buffer(plan.bytes);
    FrameTag tag = {static_cast<std::uint64_t>(::getpid()), 0};
    const TimeValue sequenceNs = plan.resequence * NsPerMs;
    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    TimeValue due = start;
    TimeValue sequenceDue = due + sequenceNs;
    board.incarnation = tag.incarnation;
    while (true)
    {
        const TimeValue before = miscUtils::getMonotonicSysclockTime();
        if (sequenceNs != 0 && before >= sequenceDue)
        {
            static_cast<void>(producer.setFormat(payloader));
            ++board.sequences;
            sequenceDue += sequenceNs;
        }
        const bool isInPlace = plan.ring && tag.index % 2 == 0;
        const kit::FrameMemory memory =
            isInPlace ? producer.acquire(plan.bytes) : kit::FrameMemory();
        fill(isInPlace ? memory.data.get() : buffer.data(), plan.bytes, tag, board);
        static_cast<void>(producer.send(
            plan.ring ? start + tag.index * FramePeriodNs : before, FramePeriodNs,
            isInPlace ? ByteView(memory) : ByteView(buffer)));
        const TimeValue now = miscUtils::getMonotonicSysclockTime();
        board.addFrame(now - before);
        // A sender that was paused goes on from here; a burst of late frames would be lost.
        due = std::max(due + FramePeriodNs, now);
        if (++tag.index == plan.frames || !letPass(board, due - now))
            return ExitDone;
    }
}

/// What the callbacks of a consumer count.
struct Receipt
{
    Board& board;
    std::size_t frameBytes;
    std::atomic<bool> isFirst = true; // of a connection
    FrameTag last = {};               // the receiving thread's, and so the next
    TimeValue lastTimestamp = 0;
    TimeValue lastArrival = 0;

    void onEvent(const kit::ConsumerEvent& event)
    {
        using Kind = kit::ConsumerEvent::Kind;
        if (event.kind != Kind::Joined)
            board.ready = 0;
        board.joins += event.kind == Kind::Joined ? 1 : 0;
        board.stalls += event.kind == Kind::Stalled ? 1 : 0;
        board.failures += event.kind == Kind::Failed ? 1 : 0;
        isFirst = true;
    }

    void onFrame(const kit::Frame& frame)
    {
        // Other programs' frames, which have no tag and another size, are counted by their times.
        const auto gapNs = static_cast<std::uint64_t>(std::max<std::int64_t>(frame.gapNs, 0));
        FrameTag tag = {1, last.index + 1 + gapNs / FramePeriodNs};
        board.missing += gapNs / FramePeriodNs;
        if (frame.data.size() == frameBytes)
        {
            std::memcpy(&tag, frame.data.data(), sizeof(tag));
            board.mixed += isFilled(frame.data, tag) ? 0 : 1;
        }

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
                board.bursts[number] = {lastTimestamp, lastArrival, frame.arrival, count};
        }
        last = tag;
        board.last = tag.index + 1;
        lastTimestamp = frame.timestamp;
        lastArrival = frame.arrival;
        board.addFrame(frame.arrival - frame.timestamp);
    }
};

int consume(Board& board, const Plan& plan)
{
    Receipt receipt{board, plan.bytes};
    kit::Consumer consumer(
        {.name = plan.name},
        {.onFrame = [&receipt](const kit::Frame& frame) { receipt.onFrame(frame); },
         .onFormat = [&receipt](const kit::StreamFormat&) { receipt.board.ready = 1; },
         .onEvent = [&receipt](const kit::ConsumerEvent& event) { receipt.onEvent(event); }});
    if (!consumer.start())
        return ExitRefused;
    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    TimeValue rejoinDue = start;
    while (letPass(board, TurnNs))
    {
        const TimeValue now = miscUtils::getMonotonicSysclockTime();
        const TimeValue streamTime = consumer.getStreamTime();
        board.overwritten = consumer.getStatistics().lost;
        board.clockOffset = streamTime != 0 ? streamTime - now : 0;
        const bool isOver = board.failures > 0 || now > start + StarvedLimitNs;
        if (plan.frames != 0 && (board.frames >= plan.frames || isOver))
            break;
        if (plan.rejoin != 0 && now >= rejoinDue)
        {
            consumer.stop();
            static_cast<void>(consumer.start());
            rejoinDue = now + plan.rejoin * NsPerMs;
        }
    }
    consumer.stop();
    if (board.frames >= plan.frames)
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
    const Plan plan = nlohmann::json::parse(argc == 2 ? argv[1] : "{}").get<Plan>();
    Board* const board = mapBoard(plan.board);
    if (board == nullptr)
        return ExitBroken;
    ::close(plan.board);
    const auto shown = plan.log ? kit::LogLevel::Debug : kit::LogLevel::Error;
    const kit::Logging logging(plan.kill != 0 ? kit::LogLevel::Trace : shown);
    watchLog(*board, plan);
    if (!applyLimits(plan))
        return ExitBroken;
    try
    {
        return plan.role == "produce" ? produce(*board, plan) : consume(*board, plan);
    }
    catch (const std::system_error&)
    {
        return ExitException;
    }
}
