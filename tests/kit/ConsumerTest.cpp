#include <atomic>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <log4cplus/logger.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vlxkit/Consumer.hpp>

#include "ConsumerRecord.hpp"
#include "ScopedTmpdir.hpp"
#include "SenderQuestion.hpp"
#include "support/AllocationCounter.hpp"
#include "support/RawSender.hpp"
#include "support/Recorder.hpp"
#include "support/VlxTest.hpp"

namespace vlx::kit
{

namespace
{

using namespace vlx::testing;
using namespace std::chrono_literals;
using std::chrono::steady_clock;

// Far below the 5 s of a stop that nobody helps; the figure itself is printed.
constexpr auto StopDeadline = 2s;

/// A consumer that writes down every callback as a line of text, such as "joined",
/// "format S16LE, 48000 Hz, 2 channels", "frame 5 gap 0 first". Callbacks that overlap, or that
/// come after a stop, are failures.
class RecordedConsumer : public Recorder
{
public:
    explicit RecordedConsumer(ConsumerOptions options)
        : m_consumer(
              std::move(options),
              {.onFrame =
                   [this](const Frame& frame)
               {
                   onCallback(
                       "frame " + std::to_string(frame.timestamp) + " gap " +
                       std::to_string(frame.gapNs) + (frame.isFirst ? " first" : ""));
               },
               .onFormat = [this](const StreamFormat& format)
               { onCallback("format " + toText(format)); },
               .onCodec = [this](Depayloader&) { onCallback("codec"); },
               .onEvent = [this](const ConsumerEvent& event)
               { onCallback(std::string(toString(event.kind)) + ": " + event.text); }})
    {
    }

    ~RecordedConsumer()
    {
        stop("end of test");
    }

    RecordedConsumer(const RecordedConsumer&) = delete;
    RecordedConsumer& operator=(const RecordedConsumer&) = delete;

    bool start()
    {
        m_mayCall = true;
        return m_consumer.start();
    }

    /// Stops, and says how long it took.
    void stop(const std::string& state)
    {
        const auto begin = steady_clock::now();
        m_consumer.stop();
        m_mayCall = false;
        const auto duration = steady_clock::now() - begin;
        EXPECT_LT(duration, StopDeadline) << state;
        std::cout << "stop, " << state << ": "
                  << std::chrono::duration_cast<std::chrono::microseconds>(duration).count()
                  << " us\n";
    }

    Consumer& get()
    {
        return m_consumer;
    }

private:
    void onCallback(const std::string& line)
    {
        EXPECT_TRUE(m_mayCall) << line << " after the stop";
        EXPECT_FALSE(m_calling.exchange(true)) << line << " beside another callback";
        record(line);
        m_calling = false;
    }

    std::atomic<bool> m_mayCall = false;
    std::atomic<bool> m_calling = false;
    Consumer m_consumer; // last: its threads use what stands above
};

/// What a sender made of plain sockets does with each who connects.
struct Script
{
    std::optional<Buffer> first = {};  // message; unset: the right one
    std::optional<Buffer> second = {}; // message; empty: none
    bool closes = false;               // afterwards
    std::string uri = {};              // empty: the right one
    NanomsgProtocol protocol = NanomsgProtocol::PubSub;
};

Buffer makeForeignSequenceInfo(const std::string& fourcc = "ABCD")
{
    Buffer packet = makeSequenceInfo(1);
    std::copy(fourcc.begin(), fourcc.end(), packet.begin() + 4);
    return packet;
}

/// A sender made of plain sockets that takes everyone who comes, and keeps to a script.
class ScriptedSender
{
public:
    ScriptedSender(const std::string& name, const Script& script = {})
        : m_script(script),
          m_directory(std::filesystem::temp_directory_path() / "VlxSender-raw"),
          m_created(std::filesystem::create_directory(m_directory)),
          m_sender(
              name,
              script.protocol,
              {},
              script.uri.empty() ? "ipc://" + m_directory + "/nanomsgChannel.ipc" : script.uri),
          m_thread([this] { serve(); })
    {
    }

    ~ScriptedSender()
    {
        m_stop = true;
        m_thread.join();
        m_connections.clear();
        m_sender.getMain().close();
        std::filesystem::remove_all(m_directory);
    }

    std::size_t getNumConnections() const
    {
        return m_numConnections;
    }

    const std::string& getDirectory() const
    {
        return m_directory;
    }

    /// Sends as soon as so many have joined the main channel.
    bool send(const Buffer& packet, std::size_t receivers = 1)
    {
        const bool hasJoined = receivers == 1 ? m_sender.joinMainChannel()
                                              : m_sender.getMain().waitForPeers(receivers);
        return hasJoined && m_sender.sendOverMainChannel(packet);
    }

private:
    void serve()
    {
        while (!m_stop)
        {
            RawConnection connection = m_sender.getListener().accept(5ms);
            if (!connection.isOpen())
                continue;
            ++m_numConnections;
            connection.send(
                makeSidechannelMessage(m_script.first.value_or(m_sender.getInitialInfo())));
            const Buffer second = m_script.second.value_or(makeSequenceInfo(1));
            if (!second.empty())
                connection.send(makeSidechannelMessage(second));
            if (!m_script.closes)
                m_connections.push_back(std::move(connection));
        }
    }

    const Script m_script;
    const std::string m_directory;
    const bool m_created;
    RawSender m_sender;
    std::vector<RawConnection> m_connections;
    std::atomic<std::size_t> m_numConnections = 0;
    std::atomic<bool> m_stop = false;
    std::thread m_thread; // last
};

class ConsumerTest : public VlxTest
{
};

TEST_F(ConsumerTest, DeliversAndJoinsAgain)
{
    RecordedConsumer consumer({.name = getSocketName()});
    ASSERT_TRUE(consumer.start()) << consumer.get().getProblem();
    for (const std::size_t round : {1U, 2U})
    {
        ScriptedSender sender(getSocketName());
        const auto first = static_cast<std::uint8_t>(round == 1 ? 10 : 50);
        for (const unsigned timestamp : {first + 0U, first + 10U})
        {
            ASSERT_TRUE(consumer.waitForEvent("format", round));
            ASSERT_TRUE(sender.send(makeFrame(1, static_cast<std::uint8_t>(timestamp))));
            ASSERT_TRUE(consumer.waitForEvent("frame " + std::to_string(timestamp)));
        }
        EXPECT_TRUE(consumer.get().getStatistics().clockSynchronized);
        EXPECT_GT(consumer.get().getStreamTime(), 0U);
    }
    ASSERT_TRUE(consumer.waitForEvent("lost", 2));
    const std::string joined = "joined: joined \"" + getSocketName() + '"';
    const std::string format = "format S16LE, 48000 Hz, 2 channels";
    const std::string lost = "lost: lost \"" + getSocketName() + "\", waiting for it to return";
    EXPECT_EQ(
        consumer.getEvents(),
        (std::vector<std::string>{
            joined, format, "frame 10 gap 0 first", "frame 20 gap 0", lost, joined, format,
            "frame 50 gap 20 first", "frame 60 gap 0", lost}));
    consumer.stop("connecting without a sender");

    const ConsumerStatistics statistics = consumer.get().getStatistics();
    EXPECT_EQ(statistics.state, Receiver::State::Idle);
    EXPECT_EQ(statistics.frames, 4U);
    EXPECT_EQ(statistics.bytes, 16U);
    EXPECT_EQ(statistics.sequences, 2U);
    EXPECT_EQ(statistics.gaps, 1U);
    EXPECT_EQ(statistics.gapNs, 20U);
    EXPECT_EQ(statistics.connections, 2U);
    EXPECT_EQ(statistics.reconnects, 1U);
    EXPECT_EQ(statistics.ages.getCount(), 4U);
    EXPECT_GT(statistics.joinNs, 0U);

    ASSERT_TRUE(consumer.start());
    {
        const ScriptedSender sender(getSocketName());
        ASSERT_TRUE(consumer.waitForEvent("joined", 3));
    }
    EXPECT_TRUE(consumer.waitForEvent("lost", 3)) << "though it has once ended a connection itself";
}

TEST_F(ConsumerTest, IntroducesFramesAtEachChange)
{
    ScriptedSender sender(getSocketName());
    RecordedConsumer consumer({.name = getSocketName()});
    ASSERT_TRUE(consumer.start());
    ASSERT_TRUE(consumer.waitForEvent("format"));
    ASSERT_TRUE(sender.send(makeFrame(1, 10)));
    ASSERT_TRUE(consumer.waitForEvent("frame 10"));
    ASSERT_TRUE(sender.send(makeSequenceInfo(2))); // announced again
    ASSERT_TRUE(sender.send(makeFrame(2, 20)));
    ASSERT_TRUE(consumer.waitForEvent("frame 20"));
    ASSERT_TRUE(sender.send(makeSequenceInfo(3, 44100)));
    ASSERT_TRUE(sender.send(makeFrame(3, 20)));
    ASSERT_TRUE(consumer.waitForEvent("frame 20", 2));
    std::vector<std::string> lines = consumer.getEvents();
    lines.erase(lines.begin());
    EXPECT_EQ(
        lines, (std::vector<std::string>{
                   "format S16LE, 48000 Hz, 2 channels", "frame 10 gap 0 first", "frame 20 gap 0",
                   "format S16LE, 44100 Hz, 2 channels", "frame 20 gap -10 first"}));
    EXPECT_EQ(consumer.get().getStatistics().overlaps, 1U);
    EXPECT_EQ(consumer.get().getStatistics().format.rate, 44100U);
}

/// Takes headers that begin with 'P'.
class TestDepayloader : public Depayloader
{
public:
    TestDepayloader() : Depayloader(0x44434241) {} // "ABCD"

    bool processCodecHeader(const ByteView& header) override
    {
        return !header.empty() && header[0] == 'P';
    }
};

TEST_F(ConsumerTest, PlaysOwnCodecsOverAPipeline)
{
    Buffer packet = makeForeignSequenceInfo();
    packet[8] = 'P';
    ScriptedSender sender(
        getSocketName(), {.second = packet, .protocol = NanomsgProtocol::Pipeline});
    TestDepayloader depayloader;
    RecordedConsumer consumer({.name = getSocketName()});
    consumer.get().addDepayloader(depayloader);
    ASSERT_TRUE(consumer.start());
    ASSERT_TRUE(consumer.waitForEvent("codec"));
    ASSERT_TRUE(sender.send(makeFrame(1, 10)));
    EXPECT_TRUE(consumer.waitForEvent("frame 10 gap 0 first"));
    EXPECT_EQ(consumer.count("codec"), 1U);
}

TEST_F(ConsumerTest, LeavesAloneWhatCannotBeJoined)
{
    struct Row
    {
        std::string name;
        Script script;
        std::string line; // of the event
        bool isSafe;      // for the receiver, which meets him if the consumer was there first
    };
    const Buffer info = fromHex("0100 00 0000 02 02 6970633A2F2F782F7900"); // ipc://x/y
    const std::string longPath = getTempDirectory() + "/VlxSender-" + std::string(100, 'x') + "/y";
    const Row rows[] = {
        {"unknown codec", {.second = makeForeignSequenceInfo("WXYZ")}, "cannot play", true},
        {"PCM header that is none", {.second = makeSequenceInfo(1, 0)}, "cannot play", true},
        {"own codec's header that is none",
         {.second = makeForeignSequenceInfo()},
         "cannot play",
         true},
        {"closes at once",
         {.first = Buffer(), .second = Buffer(), .closes = true},
         "stranger",
         true},
        {"closes after the greeting", {.second = Buffer(), .closes = true}, "stranger", true},
        {"empty greeting", {.first = Buffer(), .closes = true}, "stranger", true},
        {"empty announcement", {.second = Buffer(4)}, "stranger", true},
        {"greeting that is none", {.first = Buffer(7, 0xFF)}, "stranger", false},
        {"socket elsewhere", {.first = info}, "stranger", false},
        {"protocol that is none", {.first = fromHex("0100 00 0000 02 07 00")}, "stranger", false},
        {"path too long",
         {.uri = "ipc://" + longPath, .protocol = NanomsgProtocol::Pipeline},
         "stranger",
         false}};
    for (const Row& row : rows)
    {
        for (const bool isThereFirst : {true, false})
        {
            if (!isThereFirst && !row.isSafe)
                continue;
            SCOPED_TRACE(row.name + (isThereFirst ? ", there first" : ", comes later"));
            RecordedConsumer consumer({.name = getSocketName()});
            TestDepayloader depayloader;
            consumer.get().addDepayloader(depayloader);
            if (!isThereFirst)
            {
                ASSERT_TRUE(consumer.start());
                ASSERT_TRUE(log().waitFor(debugLog("Receiver initialized")));
            }
            {
                const ScriptedSender sender(getSocketName(), row.script);
                ASSERT_TRUE(consumer.start());
                EXPECT_TRUE(consumer.waitForEvent(row.line))
                    << ::testing::PrintToString(consumer.getEvents());
                EXPECT_EQ(consumer.count("frame"), 0U);
                if (isThereFirst)
                {
                    EXPECT_LE(sender.getNumConnections(), 100U) << "joined in a tight loop";
                }
            }
            consumer.stop("pause, " + row.name);
            log().clear();
        }
    }
}

TEST_F(ConsumerTest, TellsAnObstacleOnceAndJoinsWhatReplacesIt)
{
    RecordedConsumer consumer({.name = getSocketName()});
    {
        const ScriptedSender sender(getSocketName(), {.second = makeForeignSequenceInfo("WXYZ")});
        ASSERT_TRUE(consumer.start());
        ASSERT_TRUE(consumer.waitForEvent("cannot play"));
        const std::size_t before = sender.getNumConnections();
        EXPECT_GE(before, 5U) << "accused at the first look";
        ASSERT_TRUE(waitFor([&] { return sender.getNumConnections() > before + 1; }));
        EXPECT_EQ(consumer.count("cannot play"), 1U);
        consumer.stop("pause");
        ASSERT_TRUE(consumer.start());
        EXPECT_TRUE(consumer.waitForEvent("cannot play", 2)) << "to whoever has started it again";
    }
    {
        ScriptedSender sender(getSocketName());
        ASSERT_TRUE(consumer.waitForEvent("format"));
        ASSERT_TRUE(sender.send(makeFrame(1, 10)));
        EXPECT_TRUE(consumer.waitForEvent("frame 10"));
        const auto end = steady_clock::now() + 300ms; // the keeper looks every 100 ms
        ASSERT_TRUE(waitFor([&] { return steady_clock::now() > end; }));
    }
    const ScriptedSender sender(getSocketName(), {.second = makeForeignSequenceInfo("WXYZ")});
    EXPECT_TRUE(consumer.waitForEvent("cannot play", 3)) << "after frames it is news again";
}

TEST_F(ConsumerTest, SaysWhereThisUserMayNotWrite)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    constexpr uid_t OtherUser = 65534;
    ASSERT_EQ(::chmod(getTempDirectory().c_str(), 01777), 0);
    for (const bool isThereFirst : {true, false})
    {
        RecordedConsumer consumer({.name = getSocketName(), .stallTimeout = 0ns});
        std::optional<ScriptedSender> sender;
        if (isThereFirst)
            sender.emplace(getSocketName());
        ASSERT_EQ(::seteuid(OtherUser), 0);
        EXPECT_TRUE(consumer.start());
        if (!isThereFirst)
        {
            EXPECT_TRUE(log().waitFor(debugLog("Receiver initialized")));
            ASSERT_EQ(::seteuid(0), 0);
            sender.emplace(getSocketName());
            ASSERT_EQ(::seteuid(OtherUser), 0);
        }
        EXPECT_TRUE(consumer.waitForEvent(
            "not permitted: this user may not write to \"" + sender->getDirectory() +
            "/nanomsgChannel.ipc\" (mode 0755), the socket file of \"" + getSocketName() +
            "\": give its sender --socket-mode group or all"));
        consumer.stop("not permitted");
        ASSERT_EQ(::seteuid(0), 0);
    }
}

TEST_F(ConsumerTest, JoinsAgainAfterAStall)
{
    RecordedConsumer consumer({.name = getSocketName(), .stallTimeout = 50ms});
    ScriptedSender sender(getSocketName());
    ASSERT_TRUE(consumer.start());
    ASSERT_TRUE(consumer.waitForEvent("stalled"));
    ASSERT_TRUE(consumer.waitForEvent("joined", 2));
    ASSERT_TRUE(waitFor([&] { return sender.send(makeFrame(1, 10)) && consumer.count("frame"); }));
    EXPECT_EQ(consumer.count("lost"), 0U);
    const ConsumerStatistics statistics = consumer.get().getStatistics();
    EXPECT_GE(statistics.stalls, 1U);
    EXPECT_EQ(statistics.connections, 1U);
}

TEST_F(ConsumerTest, AsksAHungSenderOnceAndDoesNotAccuseIt)
{
    RecordedConsumer consumer({.name = getSocketName()});
    for (const bool isThereFirst : {true, false, false, false})
    {
        if (!isThereFirst)
        {
            ASSERT_TRUE(consumer.start());
        }
        RawSidechannelServer listener(getSocketName(), 10);
        if (isThereFirst)
        {
            ASSERT_TRUE(consumer.start());
        }
        const RawConnection first = listener.accept();
        ASSERT_TRUE(first.isOpen());
        // Far longer than a receiver that waits for its first message would be left alone.
        const auto end = steady_clock::now() + 1300ms;
        ASSERT_TRUE(waitFor([&] { return steady_clock::now() > end; }));
        EXPECT_FALSE(listener.accept(0ms).isOpen()) << "a second place in the backlog";
    }
    EXPECT_EQ(consumer.getEvents(), std::vector<std::string>());
    ScriptedSender sender(getSocketName());
    ASSERT_TRUE(consumer.waitForEvent("format"));
    ASSERT_TRUE(sender.send(makeFrame(1, 10)));
    EXPECT_TRUE(consumer.waitForEvent("frame 10"));
}

TEST_F(ConsumerTest, StopsPromptlyInEachState)
{
    for (const bool isFull : {false, true})
    {
        const RawSidechannelServer listener(getSocketName(), isFull ? 0 : 10);
        std::optional<RawConnection> filler;
        if (isFull)
            filler.emplace(getSocketName());
        RecordedConsumer consumer({.name = getSocketName()});
        ASSERT_TRUE(consumer.start());
        const auto isBusy = [&] { return SenderQuestion(getSocketName()).getAnswer().busy; };
        ASSERT_TRUE(
            isFull ? isBusy() : waitFor([&] { return !findConnection(getSocketName()).empty(); }));
        consumer.stop(isFull ? "full backlog" : "not accepted");
    }
    const ScriptedSender sender(getSocketName());
    struct Row
    {
        const char* state;
        const char* event; // that tells it
        std::size_t times;
    };
    for (const Row& row :
         {Row{"just started", "", 0}, Row{"joined", "joined", 1},
          Row{"stalls all the time", "stalled", 2}})
    {
        RecordedConsumer consumer({.name = getSocketName(), .stallTimeout = 1ns});
        ASSERT_TRUE(consumer.start());
        ASSERT_TRUE(consumer.waitForEvent(row.event, row.times));
        consumer.stop(row.state);
    }
    RecordedConsumer consumer({.name = getSocketName(), .stallTimeout = 1ns});
    log().clear();
    ASSERT_TRUE(consumer.start());
    ASSERT_TRUE(log().waitFor(debugLog("Receiver shut down")));
    consumer.stop("being restarted");
}

TEST_F(ConsumerTest, TakesADirectoryOfItsOwn)
{
    const std::string directory = getTempDirectory() + "/own";
    std::filesystem::create_directory(directory);
    RecordedConsumer consumer({.name = getSocketName(), .baseDirectory = directory});
    ASSERT_TRUE(consumer.start()) << consumer.get().getProblem();
    EXPECT_TRUE(log().waitFor(debugLog("Opened " + directory)));
    consumer.stop("own directory");
    EXPECT_EQ(std::getenv("TMPDIR"), getTempDirectory());
    ::unsetenv("TMPDIR");
    ASSERT_TRUE(consumer.start());
    consumer.stop("own directory again");
    EXPECT_EQ(std::getenv("TMPDIR"), nullptr);
    ::setenv("TMPDIR", getTempDirectory().c_str(), 1);
    std::filesystem::remove(directory);

    // The consumer's thread leaves the environment alone where it need not change.
    ::unsetenv("TMPDIR");
    const ScopedTmpdir same("/tmp/vlx");
    EXPECT_EQ(std::getenv("TMPDIR"), nullptr);
}

TEST_F(ConsumerTest, RefusesWhatCannotWork)
{
    for (const std::string& name : {std::string(), std::string(108, 'x')})
    {
        Consumer consumer({.name = name}, {});
        EXPECT_FALSE(consumer.start());
        EXPECT_EQ(consumer.getProblem(), "the name of a stream has 1 to 107 bytes");
    }
    const std::string missing = getTempDirectory() + "/missing";
    Consumer deaf({.name = getSocketName()}, {});
    EXPECT_FALSE(deaf.start());
    Consumer consumer(
        {.name = getSocketName(), .baseDirectory = missing}, {.onFrame = [](const Frame&) {}});
    EXPECT_FALSE(consumer.start());
    EXPECT_NE(consumer.getProblem().find(missing), std::string::npos);
}

TEST_F(ConsumerTest, AFrameCostsOneAllocationAsInTheLibrary)
{
    ScriptedSender sender(getSocketName());
    std::atomic<std::size_t> allocations = 0; // from frame to frame
    std::atomic<int> frames = 0;
    Consumer consumer(
        {.name = getSocketName()}, {.onFrame = [&, before = std::size_t(0)](const Frame&) mutable
                                    {
                                        const std::size_t now = countAllocationsOfThread();
                                        allocations = now - std::exchange(before, now);
                                        ++frames;
                                    }});
    log4cplus::Logger logger = log4cplus::Logger::getInstance("Vellox");
    logger.setLogLevel(log4cplus::OFF_LOG_LEVEL); // messages take memory, too
    ASSERT_TRUE(consumer.start());
    ASSERT_TRUE(waitFor([&] { return sender.send(makeFrame(1, 10)) && frames > 2; }));
    EXPECT_EQ(allocations, 1U);
    consumer.stop();
    logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

TEST(ConsumerRecordTest, MeasuresGaps)
{
    struct Row
    {
        std::string name;
        TimeValue timestamp;
        TimeValue duration;
        std::int64_t gapNs;
    };
    constexpr TimeValue Ms = 1'000'000;
    const Row rows[] = {
        {"first of all", 100 * Ms, 10 * Ms, 0},
        {"next", 110 * Ms, 10 * Ms, 0},
        {"jitter later", 121 * Ms, 10 * Ms, 0},
        {"jitter earlier", 130 * Ms, 10 * Ms, 0},
        {"too late for jitter", 141 * Ms + 1, 10 * Ms, Ms + 1},
        {"too early for jitter", 150 * Ms, 10 * Ms, -static_cast<std::int64_t>(Ms + 1)},
        {"lost frame", 170 * Ms, 10 * Ms, 10 * Ms},
        {"half of a short frame", 180 * Ms + 100, 200, 0},
        {"more than half of it", 180 * Ms + 401, 200, 101},
        {"back to the start", 0, 10 * Ms, -static_cast<std::int64_t>(180 * Ms + 601)},
        {"without a duration", 10 * Ms, 0, 0},
        {"after its 48 samples", 11 * Ms, 0, 0},
        {"without two of them", 14 * Ms, 0, 2 * Ms}};
    ConsumerRecord record(0);
    record.onStart(1);
    record.onJoined(2);
    EXPECT_TRUE(record.onSequence(Receiver::StreamClockType::NoClock, StreamFormat{}));
    for (const Row& row : rows)
        EXPECT_EQ(record.onFrame(row.timestamp, row.duration, 192, 3, 0).gapNs, row.gapNs)
            << row.name;

    const ConsumerStatistics statistics = record.getStatistics();
    EXPECT_EQ(statistics.gaps, 4U);
    EXPECT_EQ(statistics.gapNs, 13 * Ms + 102);
    EXPECT_EQ(statistics.overlaps, 2U);
    EXPECT_EQ(statistics.ages.getCount(), 0U);
    record.onSequence(Receiver::StreamClockType::MonotonicSystemClock, StreamFormat{});
    EXPECT_EQ(record.onFrame(99 * Ms, Ms, 192, 100 * Ms, 100 * Ms).gapNs, 0) << "another clock";
    EXPECT_EQ(record.getStatistics().ages.getMax(), Ms);

    record.onEnded(200 * Ms, true);
    record.onJoined(220 * Ms);
    record.onFrame(0, Ms, 192, 230 * Ms, 0);
    EXPECT_EQ(record.getStatistics().joinNs, 30 * Ms) << "from the loss on";
}

TEST(ConsumerRecordTest, OnlyFiveLossesWithinASecondAndWithoutASequenceAreFlapping)
{
    constexpr TimeValue Second = 1'000'000'000;
    ConsumerRecord record(0);
    const auto lose = [&record](TimeValue time)
    {
        record.onJoined(time);
        record.onEnded(time, true);
    };
    for (TimeValue i = 1; i <= 20; ++i)
        lose(i * Second / 3);
    EXPECT_FALSE(record.isFlapping());
    for (TimeValue i = 0; i < 4; ++i)
        lose(10 * Second + i);
    EXPECT_FALSE(record.isFlapping());
    lose(10 * Second + 5);
    EXPECT_TRUE(record.isFlapping());
    record.onSequence(Receiver::StreamClockType::NoClock, StreamFormat{});
    EXPECT_FALSE(record.isFlapping());
}

TEST(ConsumerRecordTest, StallLimitDoublesUntilAFrameComes)
{
    ConsumerRecord record(2);
    EXPECT_FALSE(record.isStalled(100)); // never joined
    record.onJoined(100);
    EXPECT_FALSE(record.isStalled(101));
    EXPECT_TRUE(record.isStalled(102));
    TimeValue now = 102;
    for (const TimeValue limit : {4U, 8U, 16U, 32U, 32U})
    {
        record.onStall();
        record.onEnded(now, false);
        EXPECT_FALSE(record.isStalled(now + 100));
        record.onJoined(now += 100);
        EXPECT_FALSE(record.isStalled(now + limit - 1));
        EXPECT_TRUE(record.isStalled(now + limit));
    }
    record.onFrame(0, 0, 0, now, 0);
    EXPECT_FALSE(record.isStalled(now + 1));
    EXPECT_TRUE(record.isStalled(now + 2));
    EXPECT_EQ(record.getStatistics().stalls, 5U);

    // The next one who takes the name is no slower than he is.
    record.onStall();
    record.onEnded(now, true);
    record.onJoined(now += 100);
    EXPECT_TRUE(record.isStalled(now + 2));
}

TEST(AgeHistogramTest, FindsPercentiles)
{
    AgeHistogram histogram;
    EXPECT_EQ(histogram.getPercentile(0.5), std::nullopt);
    EXPECT_EQ(histogram.getMax(), std::nullopt);
    histogram.add(-5);
    EXPECT_EQ(histogram.getPercentile(1), 0);
    for (std::int64_t age = 1; age <= 1000; ++age)
        histogram.add(age * 1000);
    EXPECT_NEAR(static_cast<double>(*histogram.getPercentile(0.5)), 500'000, 500'000 * 0.016);
    EXPECT_NEAR(static_cast<double>(*histogram.getPercentile(0.99)), 990'000, 990'000 * 0.016);
    EXPECT_EQ(histogram.getPercentile(1), 1'000'000);
    EXPECT_EQ(histogram.getMax(), 1'000'000);

    const AgeHistogram earlier = histogram;
    histogram.add(std::numeric_limits<std::int64_t>::max());
    histogram.add(7);
    histogram -= earlier;
    EXPECT_EQ(histogram.getCount(), 2U);
    EXPECT_EQ(histogram.getPercentile(0), 7);
    EXPECT_EQ(histogram.getMax(), std::numeric_limits<std::int64_t>::max());
    const AgeHistogram same = histogram;
    histogram -= same;
    EXPECT_EQ(histogram.getMax(), std::nullopt);
}

} // unnamed namespace

} // namespace vlx::kit
