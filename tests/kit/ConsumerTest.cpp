#include <deque>
#include <iostream>
#include <limits>

#include <log4cplus/logger.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>
#include <vlxkit/Media.hpp>
#include <vlxkit/Producer.hpp>
#include <vlxkit/Text.hpp>

#include "ConsumerRecord.hpp"
#include "FrameQueue.hpp"
#include "SenderQuestion.hpp"
#include "WakeupEvent.hpp"
#include "support/AllocationCounter.hpp"
#include "support/RawSender.hpp"
#include "support/Recorder.hpp"
#include "support/VlxTest.hpp"

namespace vlx::kit
{

namespace
{

using namespace vlx::testing;
using std::chrono::steady_clock;

// Far below the 5 s of a stop that nobody helps; the figure itself is printed.
constexpr auto StopDeadline = 2s;

/// A consumer that writes down every callback as a line of text, such as "joined",
/// "format S16LE, 48000 Hz, 2 channels", "frame 5 gap 0 first". Callbacks that overlap, that come
/// after a stop, or out of order (a Joined, frames, then one Lost or Stalled) are failures.
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
               .onCodec = [this](const CodecFormat& codec)
               { onCallback("codec " + toFourccText(codec.fourcc)); },
               .onEvent =
                   [this](const ConsumerEvent& event)
               {
                   checkOrder(event.kind);
                   onCallback(std::string(toString(event.kind)) + ": " + event.text);
                   if (event.kind == m_stopAt)
                       m_consumer.requestStop();
               }})
    {
    }

    ~RecordedConsumer()
    {
        stop("end of test");
    }

    RecordedConsumer(const RecordedConsumer&) = delete;
    RecordedConsumer& operator=(const RecordedConsumer&) = delete;

    Status start()
    {
        m_mayCall = true;
        return m_consumer.start();
    }

    /// From the callback itself.
    void requestStopAt(ConsumerEvent::Kind kind)
    {
        m_stopAt = kind;
    }

    /// Stops, and says how long it took.
    void stop(const std::string& state)
    {
        const auto begin = steady_clock::now();
        m_consumer.stop();
        m_mayCall = false;
        EXPECT_FALSE(m_isJoined) << state;
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
    void checkOrder(ConsumerEvent::Kind kind)
    {
        using Kind = ConsumerEvent::Kind;
        const bool isEnd = kind == Kind::Lost || kind == Kind::Stalled;
        EXPECT_EQ(m_isJoined, isEnd) << toString(kind);
        m_isJoined = kind == Kind::Joined;
    }

    void onCallback(const std::string& line)
    {
        EXPECT_TRUE(m_mayCall) << line << " after the stop";
        const bool isEvent = line.find(':') != std::string::npos;
        EXPECT_TRUE(isEvent || m_isJoined) << line << " without a connection";
        EXPECT_FALSE(m_calling.exchange(true)) << line << " beside another callback";
        record(line);
        m_calling = false;
    }

    std::atomic<bool> m_mayCall = false;
    std::atomic<bool> m_calling = false;
    std::atomic<bool> m_isJoined = false;
    std::optional<ConsumerEvent::Kind> m_stopAt;
    Consumer m_consumer; // last: its threads use what stands above
};

/// What a sender made of plain sockets does with each receiver that connects.
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
          m_directory(makeDirectoryPath()),
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

    /// Of the sequence that receivers are told of from now on.
    void setSequenceNr(std::uint16_t number)
    {
        m_sequenceNr = number;
    }

    /// Sends as soon as so many have joined the main channel.
    bool send(const Buffer& packet, std::size_t receivers = 1)
    {
        const bool hasJoined = receivers == 1 ? m_sender.joinMainChannel()
                                              : m_sender.getMain().waitForPeers(receivers);
        return hasJoined && m_sender.sendOverMainChannel(packet);
    }

private:
    static std::string makeDirectoryPath()
    {
        static std::atomic<int> count = 100;
        return std::filesystem::temp_directory_path() / ("VlxSender-raw" + std::to_string(++count));
    }

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
            const Buffer second = m_script.second.value_or(makeSequenceInfo(m_sequenceNr));
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
    std::atomic<std::uint16_t> m_sequenceNr = 1;
    std::atomic<bool> m_stop = false;
    std::thread m_thread; // last
};

/// Changes the effective user of the calling thread, and of the threads that it creates, alone.
void becomeUser(uid_t user)
{
    ASSERT_EQ(::syscall(SYS_setresuid, -1, user, -1), 0);
}

using ConsumerTest = VlxTest;

TEST_F(ConsumerTest, DeliversAndJoinsAgain)
{
    RecordedConsumer consumer({.name = getSocketName()});
    ASSERT_EQ(consumer.start().getText(), "");
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
    EXPECT_EQ(consumer.get().getAges().getCount(), 4U);
    EXPECT_GT(statistics.joinNs, 0U);

    ASSERT_TRUE(consumer.start());
    {
        const ScriptedSender sender(getSocketName());
        ASSERT_TRUE(consumer.waitForEvent("joined", 3));
    }
    EXPECT_TRUE(consumer.waitForEvent("lost", 3)) << "though it has once ended a connection itself";
}

/// Counts the headers, and takes those that begin with 'P', or all.
class TestDepayloader : public Depayloader
{
public:
    explicit TestDepayloader(std::uint32_t fourcc = 0x44434241, bool takesAll = false) // "ABCD"
        : Depayloader(fourcc), m_takesAll(takesAll)
    {
    }

    bool processCodecHeader(const ByteView& header) override
    {
        ++headers;
        return m_takesAll || (!header.empty() && header[0] == 'P');
    }

    std::atomic<int> headers = 0;

private:
    const bool m_takesAll;
};

TEST_F(ConsumerTest, AnnouncementsThatRepeatTheHeaderLeaveADecoderInStep)
{
    TestDepayloader first(0x44434241, true);  // "ABCD"
    TestDepayloader second(0x5A595857, true); // "WXYZ"
    RecordedConsumer consumer({.name = getSocketName()});
    consumer.get().addDepayloader(first);
    consumer.get().addDepayloader(second);
    ScriptedSender sender(getSocketName(), {.second = makeForeignSequenceInfo()});
    ASSERT_TRUE(consumer.start());
    ASSERT_TRUE(consumer.waitForEvent("codec"));
    const int before = first.headers;
    Buffer changed = makeForeignSequenceInfo();
    changed.back() ^= 1;
    const std::tuple<std::string, Buffer, bool> rows[] = {
        {"first", makeForeignSequenceInfo(), false}, // that of the sidechannel
        {"repeated", makeForeignSequenceInfo(), false},
        {"changed", changed, true},
        {"changed, repeated", changed, false},
        {"other codec", makeForeignSequenceInfo("WXYZ"), true},
        {"back, with the header of before", changed, true},
        {"PCM", makeSequenceInfo(1), true},
        {"PCM, repeated", makeSequenceInfo(1), false},
        {"PCM, another rate", makeSequenceInfo(1, 44100), true},
        {"back from PCM", changed, true}};
    std::uint8_t sequence = 1;
    int headers = 0;
    for (auto [name, announcement, isNew] : rows)
    {
        announcement[2] = ++sequence;
        ASSERT_TRUE(sender.send(announcement));
        ASSERT_TRUE(sender.send(makeFrame(sequence, sequence)));
        ASSERT_TRUE(consumer.waitForEvent("frame " + std::to_string(sequence) + " gap")) << name;
        EXPECT_EQ(consumer.getEvents().back().ends_with("first"), isNew || name == "first") << name;
        const bool isFirstCodec = isNew && announcement[4] == 'A';
        EXPECT_EQ(first.headers, before + (headers += isFirstCodec ? 1 : 0)) << name;
    }
    EXPECT_EQ(consumer.count("codec"), 5U);
    EXPECT_EQ(consumer.count("format S16LE, 48000 Hz, 2 channels"), 1U);
    EXPECT_EQ(consumer.count("format S16LE, 44100 Hz, 2 channels"), 1U);
    EXPECT_EQ(consumer.get().getStatistics().format.rate, 44100U);
}

TEST_F(ConsumerTest, LeavesAloneWhatCannotBeJoined)
{
    const Buffer info = fromHex("0100 00 0000 02 02 6970633A2F2F782F7900"); // ipc://x/y
    const std::string caps = "video/x-raw, width=(int)16";
    Buffer media;
    produceSequenceInfoPacket(media, MediaFourcc, Buffer(caps.begin(), caps.end()), 1);
    const std::string longPath = getTempDirectory() + "/VlxSender-" + std::string(100, 'x') + "/y";
    using enum ConsumerEvent::Kind;
    const struct
    {
        std::string name;
        Script script;
        ConsumerEvent::Kind obstacle;
        std::size_t losses = 0; // at least, before it is told
    } rows[] = {
        {"unknown codec", {.second = makeForeignSequenceInfo("WXYZ")}, CannotPlay},
        {"any media", {.second = media}, CannotPlay},
        {"invalid PCM header", {.second = makeSequenceInfo(1, 0)}, CannotPlay},
        {"absurd PCM rate", {.second = makeSequenceInfo(1, 768'001)}, CannotPlay},
        {"invalid header of an own codec", {.second = makeForeignSequenceInfo()}, CannotPlay},
        {"closes at once", {.first = Buffer(), .second = Buffer(), .closes = true}, NotASender},
        {"closes after the announcement", {.closes = true}, NotASender, 4},
        {"empty greeting", {.first = Buffer(), .closes = true}, NotASender},
        {"empty announcement", {.second = Buffer(4)}, NotASender},
        {"malformed greeting", {.first = Buffer(7, 0xFF)}, NotASender},
        {"greeting that is too long", {.first = Buffer((1 << 20) + 1, 1)}, NotASender},
        {"unknown protocol", {.first = fromHex("0100 00 0000 02 07 00")}, NotASender},
        {"socket elsewhere", {.first = info}, NotASender},
        {"path too long",
         {.uri = "ipc://" + longPath, .protocol = NanomsgProtocol::Pipeline},
         NotASender}};
    for (const bool isThereFirst : {true, false})
    {
        // All at once: each takes its time, and stops once it is told.
        std::deque<TestDepayloader> depayloaders; // outlive the consumers
        std::deque<RecordedConsumer> consumers;
        std::deque<ScriptedSender> senders;
        for (const auto& row : rows)
        {
            const std::string name = getSocketName() + "-" + std::to_string(consumers.size());
            RecordedConsumer& consumer = consumers.emplace_back(ConsumerOptions{.name = name});
            consumer.get().addDepayloader(depayloaders.emplace_back());
            consumer.requestStopAt(row.obstacle);
            if (!isThereFirst)
            {
                log().clear();
                ASSERT_TRUE(consumer.start());
                ASSERT_TRUE(log().waitFor(DebugLog("Receiver initialized")));
            }
            senders.emplace_back(name, row.script);
            ASSERT_TRUE(consumer.start());
        }
        for (std::size_t i = 0; i < std::size(rows); ++i)
        {
            SCOPED_TRACE(rows[i].name + (isThereFirst ? ", there first" : ", comes later"));
            // Each takes a start of the receiver, which may take long on a busy machine.
            for (std::size_t number = 1; number <= rows[i].losses; ++number)
                ASSERT_TRUE(consumers[i].waitForEvent("lost", number));
            EXPECT_TRUE(consumers[i].waitForEvent(toString(rows[i].obstacle)));
            EXPECT_EQ(consumers[i].count("frame"), 0U);
            if (isThereFirst && !rows[i].script.closes)
            {
                EXPECT_LE(senders[i].getNumConnections(), 50U) << "connected in a tight loop";
            }
        }
    }
}

// Before the receiver has anything to do with it: nanomsg removes what does not answer at a path.
TEST_F(ConsumerTest, RefusesMainChannelsThatAreNotTheSenders)
{
    const std::string base = getTempDirectory();
    const std::string file = base + "/of-mine";
    constexpr uid_t Other = 1234;
    const auto makeFile = [](const std::string& path) { std::ofstream(path) << "mine"; };
    const auto nothing = [](const std::string&) {};
    const auto chown = [](const std::string& path)
    { ASSERT_EQ(::chown(path.c_str(), Other, 0), 0); };
    const struct
    {
        std::string name;
        std::string directory; // below the base, with the announced file in it
        std::function<void(const std::string& directory)> prepare;
        std::string problem;
        bool inPipeline = true;
        bool asRoot = false;
    } rows[] = {
        {"file", "VlxSender-abcdef",
         [&](const std::string& path) { makeFile(path + "/nanomsgChannel.ipc"); },
         "is not a socket"},
        {"link to a file", "VlxSender-abcdef",
         [&](const std::string& path)
         { std::filesystem::create_symlink(file, path + "/nanomsgChannel.ipc"); },
         "is not a socket"},
        {"link to a directory", "VlxSender-abcdef",
         [&](const std::string& path)
         {
             std::filesystem::rename(path, path + "-target");
             std::filesystem::create_symlink(path + "-target", path);
         },
         "has no usable directory"},
        {"name too long", "VlxSender-abcdefg", nothing, "is not a valid sender path"},
        {"name too short", "VlxSender-abcde", nothing, "is not a valid sender path"},
        {"odd name", "VlxSender-abc.ef", nothing, "is not a valid sender path"},
        {"missing", "VlxSender-abcdef",
         [](const std::string& path) { std::filesystem::remove(path); }, "has no usable directory"},
        {"no file in pub/sub", "VlxSender-abcdef", nothing, "cannot be checked", false},
        {"open base directory", "open/VlxSender-abcdef",
         [&](const std::string& path) { ::chmod((path + "/..").c_str(), 0777); },
         "is not safe: its base directory has no sticky"},
        {"base directory of another user", "open/VlxSender-abcdef",
         [&](const std::string& path) { chown(path + "/.."); },
         "is not safe: its base directory belongs to user 1234", true, true},
        {"directory of another user", "VlxSender-abcdef", chown,
         "is not the sender's: its directory belongs to user 1234", true, true},
        {"socket of another user", "VlxSender-abcdef",
         [&](const std::string& path)
         {
             const std::string socket = path + "/nanomsgChannel.ipc";
             ASSERT_EQ(::mknod(socket.c_str(), S_IFSOCK | 0600, 0), 0);
             chown(socket);
         },
         "is not the sender's: it belongs to user 1234", false, true}};
    std::deque<RecordedConsumer> consumers;
    std::deque<ScriptedSender> senders;
    std::vector<std::string> events;
    makeFile(file);
    for (const auto& row : rows)
    {
        if (row.asRoot && ::geteuid() != 0)
            continue;
        const std::string name = getSocketName() + "-" + std::to_string(events.size());
        const std::string directory =
            base + "/" + std::to_string(events.size()) + "/" + row.directory;
        std::filesystem::create_directories(directory);
        row.prepare(directory);
        const auto protocol = row.inPipeline ? NanomsgProtocol::Pipeline : NanomsgProtocol::PubSub;
        const std::string uri = "ipc://" + directory + "/nanomsgChannel.ipc";
        events.push_back(
            "not a sender: \"" + name + "\" is not a valid sender: its main channel \"" + uri +
            "\" " + row.problem);
        senders.emplace_back(name, Script{.first = makeInitialInfo(uri, protocol)});
        ASSERT_TRUE(consumers.emplace_back(ConsumerOptions{.name = name}).start());
    }
    for (std::size_t i = 0; i < events.size(); ++i)
    {
        EXPECT_TRUE(consumers[i].waitForEvent(events[i]));
        EXPECT_EQ(consumers[i].count("joined"), 0U) << events[i];
        consumers[i].stop("refused");
        std::filesystem::remove_all(base + "/" + std::to_string(i));
    }
    EXPECT_EQ(std::filesystem::file_size(file), 4U);
    std::filesystem::remove(file);
}

TEST_F(ConsumerTest, StaysInTheCheckedDirectoryWhenItsPathIsSwapped)
{
    const std::string victim = getTempDirectory() + "/victim";
    std::filesystem::create_directory(victim);
    std::ofstream(victim + "/nanomsgChannel.ipc") << "mine";
    const std::string moved = getTempDirectory() + "/moved";
    {
        const ScriptedSender sender(getSocketName(), {.protocol = NanomsgProtocol::Pipeline});
        log().onNext(
            DebugLog(StartsWith("VLX initial info:")), // after the check
            [&]
            {
                std::filesystem::rename(sender.getDirectory(), moved);
                std::filesystem::create_directory_symlink(victim, sender.getDirectory());
            });
        RecordedConsumer consumer({.name = getSocketName()});
        ASSERT_TRUE(consumer.start());
        ASSERT_TRUE(consumer.waitForEvent("format"));
        EXPECT_TRUE(std::filesystem::is_socket(moved + "/nanomsgChannel.ipc"));
        consumer.stop("swapped");
        EXPECT_FALSE(std::filesystem::exists(moved + "/nanomsgChannel.ipc"));
    }
    EXPECT_EQ(std::filesystem::file_size(victim + "/nanomsgChannel.ipc"), 4U);
    std::filesystem::remove_all(victim);
    std::filesystem::remove_all(moved);
}

TEST_F(ConsumerTest, JoinsAgainWhenItHasMissedAnAnnouncement)
{
    RecordedConsumer consumer({.name = getSocketName(), .stallTimeout = 0ns});
    ScriptedSender sender(getSocketName());
    ASSERT_TRUE(consumer.start());
    ASSERT_TRUE(consumer.waitForEvent("format"));
    ASSERT_TRUE(sender.send(makeFrame(1, 10)));
    ASSERT_TRUE(consumer.waitForEvent("frame 10"));
    sender.setSequenceNr(2); // on the sidechannel alone
    ASSERT_TRUE(waitFor(
        [&]
        {
            sender.send(makeFrame(2, 20));
            return consumer.count("frame 20") != 0;
        }));
    EXPECT_EQ(consumer.count("stalled: missed a format announcement"), 1U);
    EXPECT_EQ(consumer.count("joined"), 2U);
    EXPECT_EQ(consumer.get().getStatistics().reconnects, 1U);
    consumer.get().rejoin();
    ASSERT_TRUE(consumer.waitForEvent("stalled: joining"));
    ASSERT_TRUE(consumer.waitForEvent("joined", 3));
    EXPECT_EQ(consumer.get().getStatistics().stalls, 1U);
}

TEST_F(ConsumerTest, StartsAWorkerAgainThatHasEndedUnasked)
{
    const auto before = listDescriptors();
    ScriptedSender sender(getSocketName());
    RecordedConsumer consumer({.name = getSocketName()});
    ASSERT_TRUE(consumer.start());
    ASSERT_TRUE(consumer.waitForEvent("format"));
    // As a forked child does that destroys its copy.
    for (const auto& [fd, target] : listDescriptors())
    {
        if (target.starts_with("pipe:") && !before.contains(fd)) [[maybe_unused]]
            const ssize_t size = ::write(fd, "1", 1);
    }
    ASSERT_TRUE(consumer.waitForEvent("failed: the receiver of"));
    ASSERT_TRUE(consumer.waitForEvent("format", 2));
    ASSERT_TRUE(waitFor([&] { return sender.send(makeFrame(1, 10)) && consumer.count("frame"); }));
    EXPECT_EQ(consumer.count("failed"), 1U);
}

TEST_F(ConsumerTest, ReportsAnObstacleOnceAndJoinsWhatReplacesIt)
{
    const Script unknown{.second = makeForeignSequenceInfo("WXYZ")};
    RecordedConsumer consumer({.name = getSocketName()});
    std::optional<ScriptedSender> sender(std::in_place, getSocketName(), unknown);
    ASSERT_TRUE(consumer.start());
    ASSERT_TRUE(consumer.waitForEvent("cannot play"));
    const std::size_t before = sender->getNumConnections();
    EXPECT_GE(before, 5U) << "reported after the first check";
    ASSERT_TRUE(waitFor([&] { return sender->getNumConnections() > before + 1; }));
    EXPECT_EQ(consumer.count("cannot play"), 1U);
    consumer.stop("pause");
    ASSERT_TRUE(consumer.start());
    ASSERT_TRUE(consumer.waitForEvent("cannot play", 2)) << "to the one that has started it again";

    sender.reset();
    sender.emplace(getSocketName());
    ASSERT_TRUE(consumer.waitForEvent("format"));
    ASSERT_TRUE(sender->send(makeFrame(1, 10)));
    EXPECT_TRUE(consumer.waitForEvent("frame 10"));
    std::this_thread::sleep_for(300ms); // the keeper looks every 100 ms
    sender.reset();
    sender.emplace(getSocketName(), unknown);
    EXPECT_TRUE(consumer.waitForEvent("cannot play", 3)) << "after frames it is news again";
}

TEST_F(ConsumerTest, SaysWhereThisUserMayNotWrite)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    constexpr uid_t OtherUser = 65534;
    ASSERT_EQ(::chmod(getTempDirectory().c_str(), 01777), 0);
    for (const auto& [protocol, isThereFirst, problem, mode] :
         {std::tuple(NanomsgProtocol::PubSub, true, "write to", " (mode 0755)"),
          std::tuple(NanomsgProtocol::PubSub, false, "write to", " (mode 0755)"),
          std::tuple(NanomsgProtocol::Pipeline, true, "create", "")})
    {
        RecordedConsumer consumer({.name = getSocketName(), .stallTimeout = 0ns});
        std::optional<ScriptedSender> sender;
        const Script script{.protocol = protocol};
        if (isThereFirst)
            sender.emplace(getSocketName(), script);
        becomeUser(OtherUser);
        EXPECT_TRUE(consumer.start());
        becomeUser(0);
        if (!isThereFirst)
        {
            EXPECT_TRUE(log().waitFor(DebugLog("Receiver initialized")));
            sender.emplace(getSocketName(), script);
        }
        EXPECT_TRUE(consumer.waitForEvent(
            std::string("not permitted: this user may not ") + problem + " \"" +
            sender->getDirectory() + "/nanomsgChannel.ipc\"" + mode + ", the socket file of \"" +
            getSocketName() + "\": give its sender --socket-mode group or all"));
        EXPECT_EQ(consumer.count("joined"), 0U);
        consumer.stop("not permitted");
        log().clear();
    }
}

TEST_F(ConsumerTest, AsksAHungSenderOnceAndDoesNotAccuseIt)
{
    RecordedConsumer consumer({.name = getSocketName()});
    for (const bool isThereFirst : {true, false, false})
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
        std::this_thread::sleep_for(1300ms);
        EXPECT_FALSE(listener.accept(0ms).isOpen()) << "a second place in the backlog";
    }
    EXPECT_EQ(consumer.getEvents(), std::vector<std::string>());
    ScriptedSender sender(getSocketName());
    ASSERT_TRUE(consumer.waitForEvent("format"));
    ASSERT_TRUE(sender.send(makeFrame(1, 10)));
    EXPECT_TRUE(consumer.waitForEvent("frame 10"));
}

TEST_F(ConsumerTest, AForkedCopyEndsAndTheOriginalGoesOn)
{
    std::atomic<TimeValue> last = 0;
    std::atomic<int> numEvents = 0;
    const auto makeConsumer = [&](const std::string& name)
    {
        return std::make_unique<Consumer>(
            ConsumerOptions{.name = name},
            ConsumerCallbacks{
                .onFrame = [&](const Frame& frame) { last = frame.timestamp; },
                .onEvent = [&](const ConsumerEvent&) { ++numEvents; }});
    };
    auto consumer = makeConsumer(getSocketName());
    auto waiting = makeConsumer(getSocketName() + "-none");
    ScriptedSender sender(getSocketName());
    ASSERT_TRUE(consumer->start() && waiting->start());
    for (std::uint8_t i = 1; i <= 20; ++i)
    {
        ASSERT_TRUE(waitFor([&] { return consumer->getStatistics().sequences == 1; }));
        ASSERT_TRUE(sender.send(makeFrame(1, i)));
        ASSERT_TRUE(waitFor([&] { return last == i; }));
        ASSERT_TRUE(runInFork(
            [&]
            {
                consumer->stop();
                consumer.reset();
                waiting.reset();
                return true;
            }))
            << i;
    }
    EXPECT_EQ(numEvents, 1) << "joined, and never lost";
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
    for (const auto& [state, event, times] :
         {std::tuple("just started", "", 0U), std::tuple("joined", "joined", 1U),
          std::tuple("stalls all the time", "stalled", 2U)})
    {
        RecordedConsumer consumer({.name = getSocketName(), .stallTimeout = 1ns});
        ASSERT_TRUE(consumer.start());
        ASSERT_TRUE(consumer.waitForEvent(event, times));
        consumer.stop(state);
    }
    RecordedConsumer consumer({.name = getSocketName(), .stallTimeout = 1ns});
    log().clear();
    ASSERT_TRUE(consumer.start());
    ASSERT_TRUE(log().waitFor(DebugLog("Receiver shut down")));
}

TEST_F(ConsumerTest, CanBeAskedToStopFromACallback)
{
    ScriptedSender sender(getSocketName());
    RecordedConsumer consumer({.name = getSocketName()});
    consumer.get().requestStop();
    for (const std::size_t round : {1U, 2U})
    {
        consumer.requestStopAt(ConsumerEvent::Kind::Joined);
        ASSERT_TRUE(consumer.start()) << "also after a request alone";
        ASSERT_TRUE(consumer.waitForEvent("lost: left \"" + getSocketName() + '"', round));
        ASSERT_TRUE(
            waitFor([&] { return consumer.get().getStatistics().state == Receiver::State::Idle; }));
        EXPECT_EQ(consumer.count("joined"), round);
    }
}

TEST_F(ConsumerTest, MisuseStopsTheProcessWithAdvice)
{
    const auto misuse = [this](const std::function<void(Consumer&)>& call, bool isInCallback)
    {
        std::atomic<Consumer*> consumer = nullptr;
        std::atomic<bool> isLeft = false;
        ConsumerCallbacks callbacks{.onFrame = [](const Frame&) {}};
        callbacks.onEvent = [&](const ConsumerEvent&)
        {
            if (isInCallback && !isLeft)
                call(*consumer);
            waitFor([&] { return isLeft.load(); }); // so that a stop takes its time
        };
        Consumer object({.name = getSocketName()}, callbacks);
        consumer = &object;
        const ScriptedSender sender(getSocketName());
        static_cast<void>(object.start());
        waitFor([&] { return object.getStatistics().state == Receiver::State::Running; });
        std::thread other([&] { call(object); });
        std::thread third([&] { call(object); });
        other.join();
        third.join();
        isLeft = true;
    };
    const auto stop = [](Consumer& consumer) { consumer.stop(); };
    const auto start = [](Consumer& consumer) { static_cast<void>(consumer.start()); };
    const ::testing::KilledBySignal aborts(SIGABRT);
    EXPECT_EXIT(misuse(stop, true), aborts, "call requestStop\\(\\) there");
    EXPECT_EXIT(misuse(start, true), aborts, "call it on another thread");
    EXPECT_EXIT(misuse(stop, false), aborts, "call them on one thread at a time");
}

TEST_F(ConsumerTest, TakesADirectoryOfItsOwn)
{
    const std::string directory = getTempDirectory() + "/own";
    std::filesystem::create_directory(directory);
    const auto former = std::filesystem::current_path();
    for (const std::string& given : {directory, std::string("own")})
    {
        RecordedConsumer consumer({.name = getSocketName(), .baseDirectory = given});
        log().clear();
        std::filesystem::current_path(getTempDirectory()); // a relative one is that of the start
        EXPECT_EQ(consumer.start().getText(), "");
        std::filesystem::current_path(former);
        EXPECT_TRUE(log().waitFor(DebugLog("Opened " + directory)));
    }
    EXPECT_EQ(std::getenv("TMPDIR"), getTempDirectory());
    std::filesystem::remove(directory);
}

TEST_F(ConsumerTest, RefusesWhatCannotWork)
{
    for (const std::string& name : {std::string(), std::string(108, 'x')})
    {
        Consumer consumer({.name = name}, {});
        const Status status = consumer.start();
        EXPECT_EQ(status.getCode(), ErrorCode::NameInvalid);
        EXPECT_EQ(status.getText(), "the name of a stream has 1 to 107 bytes");
    }
    const std::string missing = getTempDirectory() + "/missing";
    Consumer consumer(
        {.name = getSocketName(), .baseDirectory = missing}, {.onFrame = [](const Frame&) {}});
    const Status status = consumer.start();
    EXPECT_EQ(status.getCode(), ErrorCode::NoDirectory);
    EXPECT_NE(status.getText().find(missing), std::string::npos);
}

TEST_F(ConsumerTest, MovesWhileItReceives)
{
    ScriptedSender sender(getSocketName());
    std::atomic<int> frames = 0;
    Consumer first({.name = getSocketName()}, {.onFrame = [&](const Frame&) { ++frames; }});
    ASSERT_EQ(first.start().getText(), "");
    EXPECT_FALSE(first.read()) << "beside a frame callback, at once";
    ASSERT_TRUE(waitFor([&] { return sender.send(makeFrame(1, 10)) && frames > 0; }));
    Consumer second({.name = "vlx-nobody"}, {.onFrame = [](const Frame&) {}});
    ASSERT_EQ(second.start().getText(), "");
    second = std::move(first); // stops what it had
    const int before = frames;
    EXPECT_TRUE(waitFor([&] { return sender.send(makeFrame(1, 10)) && frames > before; }));
    EXPECT_EQ(second.getStatistics().connections, 1U);
}

/// @return an item as a line of text, such as "frame 5 gap 0 dropped 2 first"
std::string toLine(const ConsumerItem& item)
{
    if (const auto* const event = std::get_if<ConsumerEvent>(&item))
        return toString(event->kind);
    if (const auto* const format = std::get_if<StreamFormat>(&item))
        return toText(*format);
    if (const auto* const codec = std::get_if<CodecFormat>(&item))
        return "codec " + toFourccText(codec->fourcc) + " " +
               toPrintable(std::string(codec->header.begin(), codec->header.end()));
    const auto& frame = std::get<ReceivedFrame>(item);
    return "frame " + std::to_string(frame.timestamp) + " gap " + std::to_string(frame.gapNs) +
           " dropped " + std::to_string(frame.numDropped) + (frame.isFirst ? " first" : "");
}

/// Reads as far as the next frame.
///
/// @param lines  not null: gets all that was read
ReceivedFrame readFrame(Consumer& consumer, std::vector<std::string>* lines = nullptr)
{
    while (auto item = consumer.read(10s))
    {
        if (lines != nullptr)
            lines->push_back(toLine(*item));
        if (auto* const frame = std::get_if<ReceivedFrame>(&*item))
            return std::move(*frame);
    }
    ADD_FAILURE() << "no frame";
    return {};
}

TEST_F(ConsumerTest, AFrameCostsNeitherAnAllocationNorASecondCopy)
{
    log4cplus::Logger logger = log4cplus::Logger::getInstance("Vellox");
    logger.setLogLevel(log4cplus::OFF_LOG_LEVEL); // messages take memory, too
    ScriptedSender sender(getSocketName());
    std::atomic<std::size_t> allocations = 0; // of the receiving thread
    std::atomic<int> frames = 0;
    Consumer calling(
        {.name = getSocketName()}, {.onFrame = [&](const Frame&)
                                    {
                                        allocations = countAllocationsOfThread();
                                        ++frames;
                                    }});
    Consumer pulling(ConsumerOptions{.name = getSocketName()});
    ASSERT_TRUE(calling.start() && pulling.start());
    for (const Consumer* const consumer : {&calling, &pulling})
        ASSERT_TRUE(waitFor([&] { return consumer->getStatistics().sequences == 1; }));
    std::set<const unsigned char*> places;
    std::size_t before = 0;
    std::size_t beforeCalling = 0;
    for (int i = 0; i < 20; ++i)
    {
        const std::size_t ofSender = countAllocationsOfThread();
        const int former = frames;
        ASSERT_TRUE(sender.send(makeFrame(1, 10), 2));
        const std::size_t sent = countAllocationsOfThread() - ofSender;
        const std::size_t ofReader = countAllocationsOfThread();
        places.insert(readFrame(pulling).data.data());
        ASSERT_TRUE(waitFor([&] { return frames > former; }));
        if (i < 10) // by then everything has its size
        {
            before = countAllocations();
            beforeCalling = allocations;
            continue;
        }
        EXPECT_EQ(countAllocationsOfThread() - ofReader, 0U) << "of the reading side";
        EXPECT_EQ(countAllocations() - before, sent) << "of all threads but this one's sender";
        EXPECT_EQ(allocations, beforeCalling) << "of a receiving thread that calls back";
        before = countAllocations();
    }
    EXPECT_LE(places.size(), 3U) << "the memory of the frames before serves again";
    calling.stop();
    pulling.stop();
    logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

TEST_F(ConsumerTest, IsReadInOrderUntilItIsStopped)
{
    TestDepayloader depayloader;
    Consumer consumer(ConsumerOptions{.name = getSocketName()});
    consumer.addDepayloader(depayloader);
    EXPECT_FALSE(consumer.read()) << "not started";
    EXPECT_FALSE(consumer.waitUntilJoined(-1ns)) << "not started";
    const int fd = consumer.getDescriptor();
    ASSERT_TRUE(consumer.start());
    EXPECT_FALSE(consumer.read(0ns));
    EXPECT_FALSE(consumer.read(1ms));
    EXPECT_FALSE(consumer.waitUntilJoined(1ms));
    EXPECT_FALSE(isReadable(fd));
    const Script pipeline{.protocol = NanomsgProtocol::Pipeline};
    std::optional<ScriptedSender> sender(std::in_place, getSocketName(), pipeline);
    ASSERT_TRUE(consumer.waitUntilJoined(5s));
    EXPECT_EQ(consumer.getClock().type, Receiver::StreamClockType::MonotonicSystemClock);
    EXPECT_EQ(consumer.getClock().offsetNs, 0);
    std::vector<std::string> lines;
    const auto read = [&]
    {
        const auto item = consumer.read(5s);
        if (!item)
            return false;
        if (const auto* const frame = std::get_if<ReceivedFrame>(&*item))
        {
            const auto line = [](const auto& format) { return toLine(format); };
            EXPECT_EQ(std::visit(line, *frame->format), lines.back());
        }
        lines.push_back(toLine(*item));
        return true;
    };
    EXPECT_TRUE(read() && read());
    EXPECT_FALSE(isReadable(fd));
    ASSERT_TRUE(sender->send(makeFrame(1, 10)));
    ASSERT_TRUE(waitFor([&] { return isReadable(fd); }));
    Buffer codec = makeForeignSequenceInfo();
    codec[2] = 2;
    codec[8] = 'P';
    ASSERT_TRUE(sender->send(codec));
    ASSERT_TRUE(sender->send(makeFrame(2, 20)));
    EXPECT_TRUE(read() && read() && read());
    sender.reset();
    EXPECT_TRUE(read());
    // A reader that waits without limit.
    sender.emplace(getSocketName(), pipeline);
    Consumer moved(std::move(consumer));
    consumer = std::move(moved);
    std::thread reader(
        [&]
        {
            while (const auto item = consumer.read())
                lines.push_back(toLine(*item));
        });
    EXPECT_TRUE(waitFor([&] { return consumer.getStatistics().sequences == 3; }));
    consumer.requestStop();
    reader.join();
    EXPECT_FALSE(isReadable(fd));
    consumer.stop();
    const std::string format = "S16LE, 48000 Hz, 2 channels";
    EXPECT_EQ(
        lines, (std::vector<std::string>{
                   "joined", format, "frame 10 gap 0 dropped 0 first",
                   R"(codec ABCD P\xbb\x00\x00\x02\x02)", "frame 20 gap 0 dropped 0 first", "lost",
                   "joined", format, "lost"}));
}

TEST_F(ConsumerTest, ReceivesCodecsWithoutADepayloaderAsBytes)
{
    for (const bool isThereFirst : {true, false})
    {
        Consumer pulling({.name = getSocketName(), .anyCodec = true});
        RecordedConsumer calling({.name = getSocketName(), .anyCodec = true});
        std::optional<ScriptedSender> sender;
        if (!isThereFirst)
        {
            ASSERT_TRUE(pulling.start() && calling.start());
        }
        sender.emplace(getSocketName(), Script{.second = makeForeignSequenceInfo("WXYZ")});
        if (isThereFirst)
        {
            ASSERT_TRUE(pulling.start() && calling.start());
        }
        ASSERT_TRUE(calling.waitForEvent("codec WXYZ"));
        ASSERT_TRUE(waitFor([&] { return pulling.getStatistics().sequences == 1; }));
        ASSERT_TRUE(sender->send(makeFrame(1, 10), 2));
        std::vector<std::string> lines;
        EXPECT_EQ(readFrame(pulling, &lines).data, fromHex("D0D1D2D3"));
        EXPECT_EQ(lines.at(lines.size() - 2), R"(codec WXYZ \x80\xbb\x00\x00\x02\x02)");
        EXPECT_EQ(lines.back(), "frame 10 gap 0 dropped 0 first");
        EXPECT_TRUE(calling.waitForEvent("frame 10 gap 0 first"));
        EXPECT_LE(calling.count("joined"), isThereFirst ? 1U : 2U) << "not asked before";
        EXPECT_EQ(calling.count("cannot play"), 0U);
    }
}

TEST_F(ConsumerTest, AReaderThatStandsStillCostsOnlyItsOwnOldestFrames)
{
    ScriptedSender sender(getSocketName());
    ConsumerOptions options{.name = getSocketName()};
    options.queue = {.time = 0ns, .bytes = 0, .frames = 3};
    Consumer stopped(options);
    RecordedConsumer other({.name = getSocketName()});
    ASSERT_TRUE(stopped.start() && other.start());
    constexpr std::uint8_t NumFrames = 20;
    ASSERT_TRUE(waitFor([&] { return stopped.getStatistics().sequences == 1; }));
    ASSERT_TRUE(other.waitForEvent("format"));
    for (std::uint8_t i = 1; i <= NumFrames; ++i)
    {
        ASSERT_TRUE(sender.send(makeFrame(1, static_cast<std::uint8_t>(10 * i)), 2));
        ASSERT_TRUE(waitFor(
            [&] { return stopped.getStatistics().frames == i && other.count("frame") == i; }));
    }
    EXPECT_EQ(stopped.getStatistics().dropped, 17U);
    ReceivedFrame kept;
    std::vector<std::string> lines;
    while (auto item = stopped.read(0ns))
    {
        lines.push_back(toLine(*item));
        if (auto* const frame = std::get_if<ReceivedFrame>(&*item))
            kept = std::move(*frame);
    }
    EXPECT_EQ(
        lines, (std::vector<std::string>{
                   "joined", "S16LE, 48000 Hz, 2 channels", "frame 180 gap 170 dropped 17 first",
                   "frame 190 gap 0 dropped 0", "frame 200 gap 0 dropped 0"}));
    stopped = Consumer(options);
    EXPECT_EQ(kept.data, (Buffer{0xD0, 0xD1, 0xD2, 0xD3})) << "it outlives its consumer";
}

TEST(FrameQueueTest, DropsBeyondEachLimitOldestFirst)
{
    const std::tuple<const char*, QueueLimits, std::string> rows[] = {
        {"no limits", {.time = 0ns, .bytes = 0, .frames = 0}, "frame 0 gap 0 dropped 0 first"},
        {"frames", {.time = 0ns, .bytes = 0, .frames = 4}, "frame 60 gap 60 dropped 6 first"},
        {"bytes", {.time = 0ns, .bytes = 25, .frames = 0}, "frame 80 gap 80 dropped 8 first"},
        {"time", {.time = 30ns, .bytes = 0, .frames = 0}, "frame 60 gap 60 dropped 6 first"},
        {"less than a frame", {.time = 1ns, .bytes = 1}, "frame 90 gap 90 dropped 9 first"}};
    for (const auto& [name, limits, line] : rows)
    {
        for (const bool isLater : {false, true})
        {
            FrameQueue queue(isLater ? QueueLimits{.time = 0ns} : limits);
            for (TimeValue i = 0; i < 10; ++i)
            {
                FrameInfo info;
                info.timestamp = info.arrival = 10 * i;
                info.isFirst = i == 0;
                queue.putFrame(ReceivedFrame(info, Buffer(10), nullptr), 10);
            }
            if (isLater)
                queue.setLimits(limits);
            EXPECT_EQ(toLine(*queue.read(0ns)), line) << name;
        }
    }
}

TEST(FrameQueueTest, KeepsNoFormatWithoutAFrame)
{
    FrameQueue queue({.frames = 2});
    queue.put(ConsumerEvent());
    for (unsigned int rate = 1; rate <= 20; ++rate)
    {
        queue.put(CodecFormat{rate, {}});
        queue.put(StreamFormat{audioUtils::PcmFormat::U8, rate, 1});
        if (rate % 2 == 0)
            queue.putFrame(ReceivedFrame({.timestamp = rate}, Buffer(10), nullptr), 10);
    }
    ASSERT_TRUE(std::holds_alternative<ConsumerEvent>(queue.read(0ns).value()));
    for (const unsigned int rate : {18U, 20U})
    {
        EXPECT_EQ(std::get<StreamFormat>(queue.read(0ns).value()).rate, rate);
        EXPECT_EQ(std::get<ReceivedFrame>(queue.read(0ns).value()).timestamp, rate);
    }
    EXPECT_FALSE(queue.read(0ns));
}

TEST_F(ConsumerTest, PauseHoldsTheJoinAndDiscardsFrames)
{
    ScriptedSender sender(getSocketName());
    Consumer consumer(ConsumerOptions{.name = getSocketName()});
    const int fd = consumer.getDescriptor();
    consumer.pause(true);
    for (std::size_t start = 1; start <= 2; ++start)
    {
        consumer.stop();
        ASSERT_TRUE(consumer.start());
        ASSERT_TRUE(consumer.waitUntilJoined(10s));
        EXPECT_EQ(sender.getNumConnections(), start);
        EXPECT_EQ(consumer.getClock().type, Receiver::StreamClockType::MonotonicSystemClock);
        EXPECT_EQ(consumer.getStatistics().state, Receiver::State::Connecting);
        EXPECT_FALSE(consumer.read(0ns)) << "held";
    }
    consumer.pause(false);
    std::vector<std::string> lines;
    const auto send = [&](std::uint8_t number)
    {
        EXPECT_TRUE(sender.send(makeFrame(1, static_cast<std::uint8_t>(10 * number))));
        EXPECT_TRUE(waitFor([&] { return consumer.getStatistics().frames == number; }));
    };
    const auto read = [&](std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i)
            lines.push_back(toLine(consumer.read(10s).value()));
    };
    read(2);
    send(1);
    read(1);
    send(2);
    consumer.pause(true);
    EXPECT_FALSE(isReadable(fd));
    send(3);
    consumer.interrupt(true);
    EXPECT_FALSE(consumer.read());
    consumer.pause(false);
    send(4);
    send(5);
    read(2);
    EXPECT_FALSE(consumer.read());
    EXPECT_EQ(
        lines, (std::vector<std::string>{
                   "joined", "S16LE, 48000 Hz, 2 channels", "frame 10 gap 0 dropped 0 first",
                   "frame 40 gap 0 dropped 0 first", "frame 50 gap 0 dropped 0"}));
    EXPECT_EQ(consumer.getStatistics().dropped, 0U);
    EXPECT_EQ(sender.getNumConnections(), 2U) << "one for each start";
    consumer.interrupt(false);
    std::thread reader([&] { EXPECT_FALSE(consumer.read()); });
    consumer.interrupt(true);
    reader.join();
}

TEST_F(ConsumerTest, SaysTheClockThatTheFramesHave)
{
    Producer producer({.name = getSocketName(), .clock = TimeSyncProtocol::GstNetClock});
    ASSERT_TRUE(producer.open({audioUtils::PcmFormat::U8, 48000, 1}));
    Consumer consumer(ConsumerOptions{.name = getSocketName()});
    ASSERT_TRUE(consumer.start());
    ASSERT_TRUE(producer.waitForReceivers(1, 10s));
    ASSERT_TRUE(producer.send(0, 20833, Buffer(1)));
    constexpr auto NoClock = Receiver::StreamClockType::NoClock; // since it has no port
    EXPECT_EQ(readFrame(consumer).clock, NoClock);
    EXPECT_EQ(consumer.getClock().type, NoClock);
}

TEST(WakeupEventTest, AWakeEndsOneWait)
{
    const WakeupEvent event;
    event.wake();
    event.wake();
    event.wait(NoTimeout);
    const auto begin = steady_clock::now();
    event.wait(20);
    EXPECT_GE(steady_clock::now() - begin, 20ms) << "not drained";
}

TEST(ConsumerRecordTest, RejoinsAfterUnknownSequencesAtMostOnceASecond)
{
    constexpr TimeValue Ms = 1'000'000;
    ConsumerRecord record(0);
    const auto isDue = [&record](TimeValue ms) { return record.onUnknownSequence(ms * Ms); };
    TimeValue ms = 100;
    const std::function<void()> restarts[] = {
        [] {}, [&] { record.onJoined(ms * Ms); },
        [&] { record.onSequence(Receiver::StreamClockType::NoClock, StreamFormat{}, true); },
        [&] { record.onFrame(0, 0, 0, ms * Ms, 0); }};
    for (const auto& restart : restarts)
    {
        restart();
        EXPECT_FALSE(isDue(ms)) << ms;
        EXPECT_FALSE(isDue(ms += 19)) << ms;
    }
    EXPECT_TRUE(isDue(177));
    EXPECT_FALSE(isDue(178));
    EXPECT_FALSE(isDue(1176));
    EXPECT_TRUE(isDue(1177));
}

TEST(ConsumerRecordTest, MeasuresGaps)
{
    constexpr TimeValue Ms = 1'000'000;
    const std::tuple<const char*, TimeValue, TimeValue, std::int64_t> rows[] = {
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
    record.onSequence(Receiver::StreamClockType::NoClock, StreamFormat{}, true);
    for (const auto& [name, timestamp, duration, gapNs] : rows)
        EXPECT_EQ(record.onFrame(timestamp, duration, 192, 3, 0).gapNs, gapNs) << name;

    const ConsumerStatistics statistics = record.getStatistics();
    EXPECT_EQ(statistics.gaps, 4U);
    EXPECT_EQ(statistics.gapNs, 13 * Ms + 102);
    EXPECT_EQ(statistics.overlaps, 2U);
    EXPECT_EQ(record.getAges().getCount(), 0U);
    record.onSequence(Receiver::StreamClockType::MonotonicSystemClock, StreamFormat{}, true);
    EXPECT_EQ(record.onFrame(99 * Ms, Ms, 192, 100 * Ms, 100 * Ms).gapNs, 0) << "another clock";
    EXPECT_EQ(record.getAges().getMax(), Ms);

    record.onEnded(200 * Ms, true);
    record.onJoined(220 * Ms);
    record.onFrame(0, Ms, 192, 230 * Ms, 0);
    EXPECT_EQ(record.getStatistics().joinNs, 30 * Ms) << "from the loss on";
}

TEST(ConsumerRecordTest, KeepsOneConnectionApartFromTheNext)
{
    constexpr auto Clock = Receiver::StreamClockType::MonotonicSystemClock;
    ConsumerRecord record(0);
    record.onStart(10);
    record.onConnecting(20);
    EXPECT_EQ(record.getConnectingSince(), 20U);
    record.onJoined(30);
    EXPECT_EQ(record.getConnectingSince(), 0U);
    record.onSequence(Clock, StreamFormat{}, true);
    record.onSequence(Clock, StreamFormat{}, false);
    EXPECT_TRUE(record.onFrame(0, 1, 4, 50, 50).isFirst) << "though announced again";
    EXPECT_FALSE(record.onFrame(1, 1, 4, 51, 51).isFirst);
    EXPECT_TRUE(record.hasFrame());
    EXPECT_EQ(record.getStatistics().joinNs, 40U) << "from the start on";
    EXPECT_EQ(record.getStatistics().clock, Clock);

    EXPECT_TRUE(record.onEnded(60, true));
    EXPECT_FALSE(record.onEnded(61, true)) << "once";
    EXPECT_FALSE(record.hasFrame());
    EXPECT_EQ(record.getStatistics().clock, Receiver::StreamClockType::Undetermined);
    record.onConnecting(70);
    EXPECT_FALSE(record.onEnded(80, false));
    EXPECT_EQ(record.getConnectingSince(), 0U);
    record.onStart(100);
    record.onJoined(110);
    record.onSequence(Clock, StreamFormat{}, true);
    EXPECT_TRUE(record.onFrame(1, 1, 4, 120, 120).isFirst);
    EXPECT_EQ(record.getStatistics().joinNs, 20U) << "from the new start on";
    record.onSequence(Clock, std::nullopt, true);
    EXPECT_EQ(record.getStatistics().format, StreamFormat{}) << "that of PCM stays";
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
    for (TimeValue i = 0; i < 5; ++i)
        lose(8 * Second + i * Second / 4);
    EXPECT_TRUE(record.isFlapping());
    record.onStart(9 * Second + 1);
    EXPECT_FALSE(record.isFlapping()) << "a new start";
    for (TimeValue i = 0; i < 5; ++i)
    {
        record.onJoined(9 * Second + i);
        EXPECT_TRUE(record.onEnded(9 * Second + i, false));
    }
    EXPECT_FALSE(record.isFlapping()) << "not lost, but left";
    for (TimeValue i = 0; i < 4; ++i)
        lose(10 * Second + i);
    EXPECT_FALSE(record.isFlapping());
    lose(10 * Second + 5);
    EXPECT_TRUE(record.isFlapping());
    record.onSequence(Receiver::StreamClockType::NoClock, StreamFormat{}, true);
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

    // From the end of the last frame, within reason.
    constexpr TimeValue Longest = 60'000'000'000;
    for (const TimeValue duration : {TimeValue{3}, Longest, ~TimeValue{0}})
    {
        record.onFrame(0, duration, 0, now, 0);
        const TimeValue end = now + std::min(duration, Longest);
        EXPECT_FALSE(record.isStalled(end + 1));
        EXPECT_TRUE(record.isStalled(end + 2));
    }

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
