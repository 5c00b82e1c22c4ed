#include <array>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <nanomsg/nn.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vlx/VlxReceiver.hpp>
#include <vlxkit/PromptStop.hpp>

#include "Bell.hpp"
#include "base/SenderDirectory.hpp"
#include "support/HostilePeer.hpp"
#include "support/RawSender.hpp"
#include "support/RecordedReceiver.hpp"
#include "support/ResourceLimit.hpp"
#include "support/TestAccess.hpp"
#include "support/VlxTest.hpp"

namespace vlx
{

using namespace vlx::testing;

using Access = ReceiverTestAccess;
using ClockType = Receiver::StreamClockType;
using State = Receiver::State;

namespace
{

using Strings = std::vector<std::string>;

constexpr const char* ConnectionGone =
    "Connection gone because of shutdown or because of an error; attempting to reconnect";
constexpr const char* Retrying = "Could not connect to VLX sender; retrying in 400 ms";
constexpr const char* Attempting = "Attempting to connect sidechannel";

std::mutex pollMutex;
std::map<std::string, std::set<int>> pollTimeouts; // of each thread, by its name
std::atomic<bool> longConditionWaits = false;      // only a notification ends them
std::atomic<int> numConditionWaits = 0;

void createFile(const fs::path& path)
{
    const std::ofstream file(path);
}

/// While it lives, no descriptor can be opened.
struct NoDescriptorsLeft : ResourceLimit
{
    NoDescriptorsLeft() : ResourceLimit(RLIMIT_NOFILE, 3) {}
};

class ReceiverTest : public VlxTest
{
protected:
    /// @return whether the worker listens; the line of the other thread may come late
    static bool isListening()
    {
        auto entries = log().getEntries();
        std::erase_if(
            entries, [](const LogEntry& entry)
            { return entry.text == "void vlx::Receiver::fsMonitorThreadLoop()"; });
        return entries.back().text == "Listening for input";
    }

    /// Starts a receiver and has it join a sender, which announces sequence 1.
    ::testing::AssertionResult join(RecordedReceiver& receiver, RawSender& sender) const
    {
        if (!receiver.start(getSocketName()) || !sender.serve())
            return ::testing::AssertionFailure() << "not joined";
        return receiver.waitForEvent("ready");
    }

    bool hasLoggedProblems() const
    {
        return log().count(ErrorLog(_)) + log().count(WarnLog(_)) > 0;
    }
};

/// Wrappers through which the linker routes the system's calls.
extern "C"
{
    // NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
    int __real_poll(pollfd* entries, nfds_t count, int timeoutMs);
    int __real_pthread_cond_clockwait(
        pthread_cond_t* condition,
        pthread_mutex_t* mutex,
        clockid_t clock,
        const timespec* deadline);

    int __wrap_poll(pollfd* entries, nfds_t count, int timeoutMs)
    {
        std::array<char, 16> name{};
        ::pthread_getname_np(::pthread_self(), name.data(), name.size());
        {
            const std::lock_guard<std::mutex> lock(pollMutex);
            pollTimeouts[name.data()].insert(timeoutMs);
        }
        return __real_poll(entries, count, timeoutMs);
    }

    int __wrap_pthread_cond_clockwait(
        pthread_cond_t* condition,
        pthread_mutex_t* mutex,
        clockid_t clock,
        const timespec* deadline)
    {
        timespec later = *deadline;
        if (longConditionWaits)
            later.tv_sec += 30;
        ++numConditionWaits;
        return __real_pthread_cond_clockwait(condition, mutex, clock, &later);
    }
    // NOLINTEND(bugprone-reserved-identifier)
}

class ReceiverAgainstTricks : public ReceiverTest, public ::testing::WithParamInterface<Trick>
{
};

INSTANTIATE_TEST_SUITE_P(
    Tricks,
    ReceiverAgainstTricks,
    AllTricks,
    ::testing::PrintToStringParamName());

class ReceiverTransportTest : public ReceiverTest,
                              public ::testing::WithParamInterface<NanomsgProtocol>
{
};

INSTANTIATE_TEST_SUITE_P(
    Transport,
    ReceiverTransportTest,
    ::testing::Values(NanomsgProtocol::PubSub, NanomsgProtocol::Pipeline),
    ::testing::PrintToStringParamName());

// Life cycle

TEST_P(ReceiverTransportTest, CallsBackInOrderFromOneThreadWithoutALock)
{
    RawSender sender(getSocketName(), GetParam());
    const auto inherited = listInheritedDescriptors();
    RecordedReceiver receiver;
    std::vector<std::thread::id> threads;
    int queueBytes = 0; // frames must not queue and age
    receiver.onEvent(
        [&](const std::string& event)
        {
            threads.push_back(std::this_thread::get_id());
            receiver.get().getState(); // blocks for ever if a lock is held
            std::size_t size = sizeof(queueBytes);
            const int socketFD = receiver.get().*Access::NanomsgMainFD;
            if (event == "running")
                ::nn_getsockopt(socketFD, NN_SOL_SOCKET, NN_RCVBUF, &queueBytes, &size);
        });

    ASSERT_TRUE(receiver.start(getSocketName()));
    EXPECT_TRUE(receiver.start("another name"));
    ASSERT_TRUE(sender.greet());
    ASSERT_TRUE(receiver.waitForEvent("running"));
    EXPECT_TRUE(receiver.start("another name"));
    ASSERT_TRUE(sender.sendOverSidechannel(makeSequenceInfo(1)));
    ASSERT_TRUE(sender.joinMainChannel());
    ASSERT_TRUE(receiver.waitForEvent("ready"));
    ASSERT_TRUE(sender.sendOverMainChannel(makeFrame(1, 77)));
    ASSERT_TRUE(receiver.waitForEvent("frame"));
    ASSERT_TRUE(waitFor(isListening));
    EXPECT_EQ(listInheritedDescriptors(), inherited);
    const auto getPollTimeouts = [](const char* thread)
    {
        const std::lock_guard<std::mutex> lock(pollMutex);
        return pollTimeouts[thread];
    };
    EXPECT_TRUE(waitFor([&] { return getPollTimeouts("vlx-monitor") == std::set{5000}; }));
    EXPECT_EQ(getPollTimeouts("vlx-worker"), (std::set{-1, 50}));
    receiver.stop();
    EXPECT_EQ(receiver.get().getState(), State::Idle);

    EXPECT_THAT(
        receiver.getEvents(), ElementsAre(
                                  "connecting", "running", "sequence 48000 x2 S16LE",
                                  "ready monotonic system clock", "frame 77", "idle"));
    EXPECT_EQ(receiver.getFrames().at(0), (RecordedReceiver::Frame{77, 10, fromHex("D0D1D2D3")}));
    EXPECT_EQ(threads.at(0), std::this_thread::get_id());
    EXPECT_NE(threads.at(1), std::this_thread::get_id());
    EXPECT_EQ(std::count(threads.begin() + 1, threads.end(), threads.at(1)), 5);

    EXPECT_EQ(log().count(TraceLog(StartsWith("Setting up receiver"))), 1U);
    EXPECT_FALSE(hasLoggedProblems());
    EXPECT_EQ(queueBytes, 1);
}

TEST_F(ReceiverTest, AStoppedReceiverClosesNothingAgain)
{
    RecordedReceiver receiver(getSocketName());
    ASSERT_TRUE(log().waitFor(TraceLog(Retrying)));
    const int inotifyFD = receiver.get().*Access::InotifyFD;
    receiver.stop();
    EXPECT_EQ(receiver.get().*Access::InotifyFD, -1);

    // They reuse the descriptor numbers of the receiver.
    std::vector<Descriptor> others;
    while (others.empty() || others.back().get() <= inotifyFD)
        others.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    receiver.stop();
    for (const Descriptor& other : others)
        EXPECT_NE(::fcntl(other.get(), F_GETFD), -1) << other.get();
}

TEST_F(ReceiverTest, WithoutDescriptorsItDoesNotStart)
{
    RecordedReceiver receiver;
    // Once with descriptors: a sanitizer needs some on first sight of a class.
    ASSERT_TRUE(receiver.start(getSocketName()));
    receiver.stop();
    log().clear();
    {
        const NoDescriptorsLeft shortage;
        EXPECT_FALSE(receiver.start(getSocketName()));
    }
    EXPECT_EQ(receiver.get().getState(), State::Idle);
    EXPECT_THAT(receiver.getEvents(), ElementsAre("connecting", "idle")) << "of the first start";
    EXPECT_TRUE(log().isExactly({ErrorLog(
        "Could not create VLX receiver thread look wakeup pipe: Too many open files (24)")}));
    EXPECT_TRUE(receiver.start(getSocketName()));
}

TEST_F(ReceiverTest, AnExceptionOfTheFirstCallbackLeavesItIdle)
{
    RecordedReceiver receiver;
    receiver.onEvent(
        [&](const std::string&)
        {
            if (receiver.getEvents().size() == 1)
                throw std::runtime_error("no");
        });
    EXPECT_THROW(receiver.start(getSocketName()), std::runtime_error);
    EXPECT_EQ(receiver.get().getState(), State::Idle);
    EXPECT_EQ((receiver.get().*Access::LoopWakeupPipe)[0], -1);
    RawSender sender(getSocketName(), NanomsgProtocol::PubSub);
    EXPECT_TRUE(join(receiver, sender));
}

TEST_F(ReceiverTest, WithoutThreadsItIsIdleAgain)
{
    const auto startWithoutThreads = [](const std::string& name)
    {
        Receiver receiver;
        try
        {
            const NoThreads shortage;
            receiver.initializeReceiver(name);
        }
        catch (const std::system_error&)
        {
            const bool isIdle = receiver.getState() == State::Idle;
            receiver.shutdownReceiver();
            const bool works =
                receiver.initializeReceiver(name) && receiver.getState() == State::Connecting;
            std::_Exit(isIdle && works ? 0 : 1);
        }
        std::_Exit(1);
    };
    EXPECT_EXIT(startWithoutThreads(getSocketName()), ::testing::ExitedWithCode(0), "");
}

// Connecting

TEST_F(ReceiverTest, WaitsForASenderQuietlyWithAndWithoutTheDirectory)
{
    for (const bool hasDirectory : {true, false})
    {
        SCOPED_TRACE(hasDirectory);
        log().clear();
        ::setenv("TMPDIR", (getTempDirectory() + (hasDirectory ? "" : "/missing")).c_str(), 1);
        RecordedReceiver receiver(getSocketName());
        ::setenv("TMPDIR", getTempDirectory().c_str(), 1);
        EXPECT_EQ(log().contains(DebugLog(StartsWith("Opened "))), hasDirectory);
        ASSERT_TRUE(log().waitFor(TraceLog(Retrying), 3));
        EXPECT_EQ(receiver.get().getState(), State::Connecting);
        EXPECT_GE(log().count(TraceLog(Attempting)), 3U);

        RawSender sender(getSocketName(), NanomsgProtocol::PubSub);
        EXPECT_TRUE(sender.serve());
        EXPECT_TRUE(receiver.waitForEvent("ready"));
        EXPECT_EQ(log().count(TraceLog("Sidechannel socket established")), 1U);
        EXPECT_EQ(receiver.count("connecting"), 1U);
        // Without the directory no event wakes the monitor: it must end by itself.
        hasDirectory ? receiver.stop() : receiver.get().shutdownReceiver();
        EXPECT_FALSE(hasLoggedProblems());
    }
}

TEST_F(ReceiverTest, ReportsWhyItCannotConnect)
{
    const auto [readEnd, writeEnd] = makePipe();
    RecordedReceiver receiver;
    // As if kept from an earlier attempt.
    receiver.get().*Access::SidechannelSocketFD = ::fcntl(readEnd.get(), F_DUPFD_CLOEXEC, 0);
    ASSERT_TRUE(receiver.start(getSocketName()));
    ASSERT_TRUE(log().waitFor(TraceLog(Retrying), 2));
    receiver.stop();
    EXPECT_TRUE(log().containsInOrder(
        {TraceLog(Attempting),
         ErrorLog("Could not connect to sender: Socket operation on non-socket (88)"),
         DebugLog(StartsWith("Closing sidechannel with FD ")), TraceLog(Retrying),
         TraceLog("Sidechannel socket established"), TraceLog(Attempting)}));

    receiver.get().*Access::SidechannelSocketFD = ::fcntl(readEnd.get(), F_DUPFD_CLOEXEC, 0);
    log().clear();
    EXPECT_EQ((receiver.get().*Access::ReadSidechannelMessage)(), 2);
    EXPECT_TRUE(log().isExactly({ErrorLog(
        "Could not read data from VLX sidechannel socket: Socket operation on non-socket (88)")}));
    (receiver.get().*Access::DisconnectSidechannel)();
}

TEST_F(ReceiverTest, AFullBacklogIsRetried)
{
    RawSidechannelServer stopped(getSocketName(), 0);
    std::vector<RawConnection> others;
    do
        others.emplace_back(getSocketName(), std::chrono::milliseconds(0));
    while (others.back().isOpen());

    RecordedReceiver receiver(getSocketName());
    EXPECT_TRUE(log().waitFor(
        ErrorLog("Could not connect to sender: Resource temporarily unavailable (11)"), 2));
    EXPECT_TRUE(waitFor(
        [&]
        {
            stopped.accept({});
            return log().contains(DebugLog("Sidechannel to VLX sender established"));
        }));
}

TEST_P(ReceiverAgainstTricks, HoldsNeitherWorkerNorShutdown)
{
    HostilePeer peer(GetParam(), getTempDirectory());
    const bool isGone = passesDescriptor(GetParam());
    const LogExpectation closed = DebugLog("VLX sidechannel socket got closed");
    RawSender sender(getSocketName(), NanomsgProtocol::PubSub);
    const auto forgetConnections = [&sender] // new ones, made by a receiver before it stopped
    {
        while (sender.getListener().accept({}).isOpen())
        {
        }
    };

    // In place of the InitialInfo.
    RecordedReceiver receiver(getSocketName());
    {
        const RawConnection ungreeted = sender.getListener().accept();
        ASSERT_TRUE(peer.play(ungreeted));
        if (isGone)
        {
            EXPECT_TRUE(log().waitFor(closed));
            EXPECT_TRUE(log().waitFor(
                ErrorLog("Could not get initial info; restarting connection attempt")));
        }
        EXPECT_TRUE(peer.isPrompt([&] { receiver.stop(); }));
    }
    EXPECT_EQ(receiver.count("failed"), 0U);
    forgetConnections();

    // While it runs.
    ASSERT_TRUE(join(receiver, sender));
    ASSERT_TRUE(peer.play(sender.getSidechannel()));
    EXPECT_TRUE(!isGone || log().waitFor(closed, 2));
    EXPECT_TRUE(peer.isPrompt([&] { receiver.stop(); }));
    forgetConnections();

    // When the peer does not read any more.
    RecordedReceiver busy;
    busy.onEvent(
        [&busy](const std::string& event)
        {
            if (event.starts_with("ready"))
                waitFor([&busy] { return !(busy.get().*Access::KeepRunning); });
        });
    ASSERT_TRUE(join(busy, sender));
    ASSERT_TRUE(peer.play(sender.getSidechannel()));
    EXPECT_TRUE(peer.isPrompt([&] { busy.stop(); }));
    EXPECT_TRUE(peer.isLockKept());
    EXPECT_TRUE(isGone || !hasLoggedProblems());
}

TEST_F(ReceiverTest, ABellOrAStopEndsTheWaitAndNotTheNext)
{
    longConditionWaits = true;
    RecordedReceiver receiver(getSocketName());
    ASSERT_TRUE(waitFor([] { return numConditionWaits > 0; }));
    {
        RawSender sender(getSocketName(), NanomsgProtocol::PubSub);
        auto greeted = std::async(std::launch::async, [&] { return sender.greet(); });
        EXPECT_TRUE(waitFor(
            [&]
            {
                kit::ringBell(); // repeated: a bell has no effect while no receiver waits
                return greeted.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
            }));
        EXPECT_TRUE(greeted.get());
        numConditionWaits = 0;
    }
    ASSERT_TRUE(waitFor([] { return numConditionWaits > 0; }));
    EXPECT_TRUE(waitFor([&] { return !(receiver.get().*Access::SenderAppeared); }));
    auto stopped = std::async(std::launch::async, [&] { receiver.stop(); });
    EXPECT_EQ(stopped.wait_for(DefaultDeadline), std::future_status::ready);
    longConditionWaits = false;
}

TEST_F(ReceiverTest, ConnectsAgainAtOnceWithoutInitialInfo)
{
    RawSender sender(getSocketName(), NanomsgProtocol::PubSub);
    RecordedReceiver receiver(getSocketName());
    for (const char* beginning : {"", "10", "10000000", "10000000 0100"})
    {
        RawConnection connection = sender.getListener().accept();
        ASSERT_TRUE(connection.send(fromHex(beginning)));
    }
    ASSERT_TRUE(sender.serve());
    EXPECT_TRUE(receiver.waitForEvent("ready"));
    EXPECT_EQ(log().count(ErrorLog(_)), 4U);
    EXPECT_FALSE(log().contains(TraceLog(Retrying)));
}

TEST_F(ReceiverTest, LongNamesAreCut)
{
    for (const std::size_t length : {106U, 107U, 108U, 300U})
    {
        SCOPED_TRACE(length);
        std::string name = getSocketName() + "-";
        name.resize(length, 'n');
        RawSidechannelServer server(name.substr(0, 107));
        RecordedReceiver receiver(name);
        EXPECT_TRUE(server.accept().isOpen());
    }
}

TEST_F(ReceiverTest, OutsideRunningTheClockIsUndetermined)
{
    const LogExpectation message = ErrorLog("Cannot query synced net clock availability unless the "
                                            "receiver is in the Running state");
    RecordedReceiver receiver;
    EXPECT_EQ(receiver.get().getStreamClockType(), ClockType::Undetermined);
    EXPECT_TRUE(log().isExactly({message}));
    ASSERT_TRUE(receiver.start(getSocketName()));
    EXPECT_EQ(receiver.get().getStreamClockType(), ClockType::Undetermined);
    EXPECT_EQ(log().count(message), 2U);
}

/// Lets a receiver connect to a sender with this announcement, and waits for the result.
void receiveInitialInfo(const std::string& socketName, const Buffer& packet)
{
    RawSidechannelServer server(socketName);
    RecordedReceiver receiver(socketName);
    RawConnection connection = server.accept();
    connection.send(makeSidechannelMessage(packet));
    connection.waitForClose();
}

using ReceiverDeathTest = ReceiverTest;

TEST_F(ReceiverDeathTest, AnUnusableInitialInfoStopsTheProcess)
{
    EXPECT_ASSERTION(receiveInitialInfo(getSocketName(), fromHex("01")), "ok");
    EXPECT_ASSERTION(receiveInitialInfo(getSocketName(), fromHex("0100 00 0000 02 02 75")), "ok");
    for (const char* packet : {"0100 00 0000 02 00 7500", "0100 00 0000 02 03 7500"})
        EXPECT_ASSERTION(receiveInitialInfo(getSocketName(), fromHex(packet)), "false");
}

TEST_F(ReceiverDeathTest, OnlyARunningReceiverReportsThatItIsReady)
{
    Receiver receiver;
    EXPECT_ASSERTION((receiver.*Access::ReportReceiverIsReady)(), "m_state == State::Running");
    receiver.*Access::State = State::Connecting;
    EXPECT_ASSERTION((receiver.*Access::OnClockSyncStateChange)(), "m_state == State::Running");
    receiver.*Access::State = State::Idle;
}

TEST_F(ReceiverTest, ARefusedSenderIsRetriedAfterTheUsualDelay)
{
    RawSender sender(getSocketName(), NanomsgProtocol::PubSub);
    RecordedReceiver receiver;
    Buffer seen;
    std::optional<PeerCredentials> peer;
    bool accepts = false;
    receiver.get().setMaxSidechannelMessageSize(1000);
    receiver.get().setInitialInfoCheckCallback(
        [&](const ByteView& packet,
            const PeerCredentials& credentials) -> std::optional<std::string>
        {
            seen.assign(packet.begin(), packet.end());
            peer = credentials;
            return accepts ? std::optional<std::string>("") : std::nullopt;
        });
    // The check refuses the first, the limit the second; parsing the first would stop the process.
    for (const char* message : {"01000000 FF", "E9030000"})
    {
        SCOPED_TRACE(message);
        longConditionWaits = true; // only a stop ends them
        ASSERT_TRUE(receiver.start(getSocketName()));
        const int numWaits = numConditionWaits;
        RawConnection connection = sender.getListener().accept();
        EXPECT_TRUE(connection.send(fromHex(message)));
        EXPECT_TRUE(connection.waitForClose());
        EXPECT_TRUE(waitFor([&] { return numConditionWaits > numWaits; }));
        log().clear();
        EXPECT_TRUE(waitFor(
            []
            {
                kit::ringBell();
                return log().count(DebugLog(EndsWith("signaling condition variable"))) > 1;
            }));
        EXPECT_FALSE(sender.getListener().accept(std::chrono::milliseconds(50)).isOpen())
            << "others may ring";
        receiver.stop();
        longConditionWaits = false;
    }
    EXPECT_EQ(std::exchange(seen, {}), fromHex("FF"));
    accepts = true;
    ASSERT_TRUE(receiver.start(getSocketName()));
    EXPECT_TRUE(sender.serve());
    EXPECT_TRUE(receiver.waitForEvent("ready"));
    EXPECT_EQ(seen, sender.getInitialInfo());
    ASSERT_TRUE(peer);
    EXPECT_EQ(peer->process, ::getpid());
    EXPECT_EQ(peer->user, ::geteuid());
    EXPECT_EQ(peer->group, ::getegid());
    EXPECT_FALSE(hasLoggedProblems());
}

TEST_P(ReceiverTransportTest, TheCheckChoosesTheMainChannel)
{
    RawSender sender(getSocketName(), GetParam());
    const Descriptor directory(::open(getTempDirectory().c_str(), O_PATH | O_CLOEXEC));
    RecordedReceiver receiver;
    receiver.get().setInitialInfoCheckCallback(
        [&](const ByteView&, const PeerCredentials&)
        { return "ipc:///proc/self/fd/" + std::to_string(directory.get()) + "/raw.ipc"; });
    ASSERT_TRUE(receiver.start(getSocketName()));
    RawConnection connection = sender.getListener().accept();
    ASSERT_TRUE(connection.send(
        makeSidechannelMessage(makeInitialInfo("ipc:///nowhere/at/all", GetParam()))));
    ASSERT_TRUE(connection.send(makeSidechannelMessage(makeSequenceInfo(1))));
    ASSERT_TRUE(receiver.waitForEvent("ready"));
    ASSERT_TRUE(sender.joinMainChannel());
    ASSERT_TRUE(sender.sendOverMainChannel(makeFrame(1, 7)));
    EXPECT_TRUE(receiver.waitForEvent("frame 7"));
    EXPECT_TRUE(log().contains(DebugLog(
        ::testing::AllOf(StartsWith("VLX initial info:"), EndsWith("ipc:///nowhere/at/all")))));
    receiver.stop();
}

TEST_F(ReceiverTest, SidechannelMessagesCanBeLimited)
{
    const std::tuple<std::uint32_t, std::uint32_t, bool> rows[] = {
        {0, 100'000, true}, {10, 10, true},          {10, 11, false},
        {10, 0, true},      {10, 0x7FFFFFFF, false}, {10, 0xFFFFFFFF, false},
    };
    for (const auto& [limit, announced, isAccepted] : rows)
    {
        SCOPED_TRACE(announced);
        Receiver receiver;
        receiver.setMaxSidechannelMessageSize(limit);
        const auto [peer, own] = makeSocketPair();
        receiver.*Access::SidechannelSocketFD = ::fcntl(own.get(), F_DUPFD_CLOEXEC, 0);
        ASSERT_EQ(::write(peer.get(), &announced, sizeof(announced)), 4);
        log().clear();
        EXPECT_EQ((receiver.*Access::ReadSidechannelMessage)(), isAccepted ? 0 : 3);
        const LogExpectation tooLong = ErrorLog(
            "Received sidechannel VLX message is too long: " + std::to_string(announced) +
            " byte(s)");
        EXPECT_EQ(log().count(tooLong), isAccepted ? 0U : 1U);
        EXPECT_TRUE(isAccepted || (receiver.*Access::SidechannelBuffer).size() == 4U)
            << "nothing is allocated";
        (receiver.*Access::DisconnectSidechannel)();
    }
}

// Main channel

TEST_F(ReceiverTest, GivesUpWithoutAMainChannel)
{
    RawNanomsg rival(NN_PULL);
    const std::string taken = "ipc://" + getTempDirectory() + "/taken";
    ASSERT_TRUE(rival.bind(taken));
    const std::tuple<const char*, NanomsgProtocol, std::string, const char*> rows[] = {
        {"no directory", NanomsgProtocol::Pipeline, "ipc://" + getTempDirectory() + "/no/x",
         "No such file or directory (2)"},
        {"bound by another", NanomsgProtocol::Pipeline, taken, "Address already in use (98)"},
        {"no transport", NanomsgProtocol::PubSub, "nowhere://x", "Protocol not supported (93)"},
    };
    for (const auto& [name, protocol, uri, error] : rows)
    {
        SCOPED_TRACE(name);
        log().clear();
        RecordedReceiver receiver(getSocketName());
        {
            RawSender sender(getSocketName(), protocol, {}, uri);
            ASSERT_TRUE(sender.greet());
            ASSERT_TRUE(receiver.waitForEvent("failed"));
            EXPECT_TRUE(sender.getSidechannel().waitForClose());
        }
        EXPECT_THAT(receiver.getEvents(), ElementsAre("connecting", "idle", "failed"));
        EXPECT_EQ(receiver.get().getState(), State::Idle);
        receiver.stop();
        EXPECT_TRUE(log().contains(
            ErrorLog(std::string("Could not connect the nanomsg SP socket: ") + error)));
        EXPECT_EQ(log().count(ErrorLog(_)), 1U);

        RawSender good(getSocketName(), NanomsgProtocol::PubSub);
        EXPECT_TRUE(join(receiver, good));
        receiver.stop();
        EXPECT_EQ(receiver.count("failed"), 1U);
    }
    rival.close();
    fs::remove(getTempDirectory() + "/taken");
}

TEST_F(ReceiverTest, GivesUpWithoutASidechannelSocket)
{
    RawSender sender(getSocketName(), NanomsgProtocol::PubSub);
    std::optional<NoDescriptorsLeft> shortage;
    RecordedReceiver receiver;
    receiver.onEvent(
        [&](const std::string& event)
        {
            if (event == "connecting" && receiver.count("running") == 1)
                shortage.emplace();
            if (event == "failed")
                shortage.reset();
        });
    ASSERT_TRUE(join(receiver, sender));
    sender.getSidechannel().close();
    ASSERT_TRUE(receiver.waitForEvent("failed"));
    EXPECT_EQ(receiver.get().getState(), State::Idle);
    EXPECT_TRUE(
        log().contains(ErrorLog("Could not create sidechannel socket: Too many open files (24)")));
    EXPECT_FALSE(log().contains(TraceLog(Retrying)));
}

TEST_F(ReceiverTest, OnlyTheOwnSocketFileGetsItsMode)
{
    const fs::path directory = getTempDirectory();
    const auto getMode = [&](const char* name)
    { return static_cast<unsigned>(fs::status(directory / name).permissions()); };
    createFile(directory / "file");
    ::chmod((directory / "file").c_str(), 0600);
    fs::create_directory(directory / "directory");
    RawNanomsg own(NN_PULL);
    ASSERT_TRUE(own.bind("ipc://" + (directory / "own").string()));
    fs::create_symlink("own", directory / "link to own");
    RawNanomsg foreign(NN_PULL);
    ASSERT_TRUE(foreign.bind("ipc://" + (directory / "foreign").string()));
    const bool isForeign = ::lchown((directory / "foreign").c_str(), 65534, 65534) == 0;
    const std::pair<const char*, int> results[] = {
        {"file", ENOTSOCK}, {"directory", ENOTSOCK}, {"link to own", ELOOP},
        {"own", 0},         {"missing", ENOENT},     {"foreign", isForeign ? EPERM : 0}};
    for (const auto& [name, result] : results)
        EXPECT_EQ(changeSocketFileMode(directory / name, 0622), result) << name;
    EXPECT_EQ(getMode("own"), 0622U);
    EXPECT_EQ(getMode("file"), 0600U);

    // A user with write permission for a pipeline's directory replaces the socket file by a link.
    log().onNext(
        InfoLog(StartsWith("Changing the permissions of socket")),
        [&]
        {
            fs::remove(directory / "raw.ipc");
            fs::create_symlink("file", directory / "raw.ipc");
        });
    RawSender sender(getSocketName(), NanomsgProtocol::Pipeline);
    RecordedReceiver receiver(getSocketName());
    ASSERT_TRUE(sender.greet());
    ASSERT_TRUE(receiver.waitForEvent("running"));
    EXPECT_TRUE(fs::is_symlink(directory / "raw.ipc"));
    EXPECT_EQ(getMode("file"), 0600U);

    receiver.stop();
    own.close();
    foreign.close();
    for (const fs::directory_entry& entry : fs::directory_iterator(directory))
        fs::remove(entry.path());
}

TEST_F(ReceiverTest, OnlySocketFilesGetAMode)
{
    RecordedReceiver receiver;
    {
        RawSender sender(getSocketName(), NanomsgProtocol::Pipeline);
        ASSERT_TRUE(join(receiver, sender));
        EXPECT_EQ(fs::status(getTempDirectory() + "/raw.ipc").permissions(), fs::perms{0622});
        EXPECT_EQ(log().count(InfoLog(_)), 1U);
    }
    log().clear();
    receiver.stop();
    RawSender sender(getSocketName(), NanomsgProtocol::Pipeline, {}, "inproc://" + getSocketName());
    ASSERT_TRUE(receiver.start(getSocketName()));
    ASSERT_TRUE(sender.serve());
    ASSERT_TRUE(receiver.waitForEvent("ready", 2));
    ASSERT_TRUE(sender.sendOverMainChannel(makeFrame(1, 5)));
    EXPECT_TRUE(receiver.waitForEvent("frame 5"));
    EXPECT_EQ(log().count(InfoLog(_)), 0U);
}

// Input

TEST_F(ReceiverTest, SequenceNumbersDecideWhatIsKept)
{
    enum Type : std::uint8_t
    {
        Other = 9,
        Sequence = 1,
        Frame = 2
    };
    const std::string tooOld = "dropping VLX packet because it is too old";
    const std::string adopted = "setting sequence nr";
    const std::string mismatch = "dropping VLX Frame packet because its sequence number does not";
    const std::string redundant = "dropping VLX SequenceInfo packet because it is redundant";
    const std::tuple<std::uint16_t, std::uint16_t, Type, bool, std::string> rows[] = {
        // The same number.
        {5, 5, Frame, true, ""},
        {5, 5, Other, true, ""},
        {5, 5, Sequence, false, redundant},
        {0, 0, Sequence, false, redundant},
        {0, 0, Frame, true, ""},
        // Older and newer ones.
        {5, 4, Sequence, false, tooOld},
        {5, 4, Frame, false, tooOld},
        {5, 0, Other, false, tooOld},
        {5, 6, Frame, false, mismatch},
        {5, 6, Sequence, true, adopted},
        {5, 6, Other, true, ""},
        {5, 65519, Sequence, true, adopted},
        // The top of the range, and the bottom.
        {0, 65530, Sequence, true, adopted},
        {0, 65530, Frame, false, mismatch},
        {1, 65530, Sequence, false, tooOld},
        {14, 65530, Sequence, false, tooOld},
        {14, 65520, Frame, false, tooOld},
        {14, 65519, Sequence, true, adopted},
        {15, 65520, Sequence, true, adopted},
        {15, 65530, Sequence, true, adopted},
        {20, 65530, Sequence, true, adopted},
        {65530, 65520, Sequence, false, tooOld},
        {65530, 65535, Sequence, true, adopted},
        {65530, 3, Sequence, false, tooOld},
        {0x1234, 0x3412, Sequence, true, adopted},
    };
    for (const auto& [current, number, type, isKept, message] : rows)
    {
        SCOPED_TRACE(
            std::to_string(current) + ", packet " + std::to_string(number) + ", type " +
            std::to_string(type));
        Receiver receiver;
        std::optional<FrameRefusal> refusal;
        receiver.setRefusedFrameCallback([&](FrameRefusal reason) { refusal = reason; });
        log().clear();
        receiver.*Access::CurrentSequenceNr = current;
        Buffer packet = makeSequenceInfo(number);
        packet[0] = type;

        EXPECT_EQ((receiver.*Access::ShouldPacketBeKept)(packet), isKept);
        const bool isAdopted = isKept && type == Sequence;
        EXPECT_EQ(receiver.*Access::CurrentSequenceNr, isAdopted ? number : current);
        EXPECT_EQ(refusal == FrameRefusal::TooOld, type == Frame && message == tooOld);
        EXPECT_EQ(refusal == FrameRefusal::UnknownSequence, message == mismatch);
        if (message.empty())
            EXPECT_TRUE(log().isExactly({}));
        else
            EXPECT_TRUE(log().isExactly({DebugLog(StartsWith(message))}));
    }
}

constexpr bool Main = true;
constexpr bool Side = false;

struct InputRow
{
    const char* name;
    bool isMain;       ///< on the main channel, or the sidechannel
    bool isInSequence; ///< whether sequence 1 has been announced
    Buffer packet;
    LogExpectation expected;
    bool isConnectionKept;
};

std::vector<InputRow> makeInputRows()
{
    const Buffer foreign = fromHex("01 00 0200 58595A5A");
    const Buffer rejected = makeSequenceInfo(2, 0);
    const Buffer withoutFourcc = fromHex("01 00 0200 50434D");
    const Buffer unknown = fromHex("09 00 0700 00");
    const Buffer frame = makeFrame(1, 7);
    const Buffer frame0 = makeFrame(0, 7);
    const Buffer shortFrame(frame.begin(), frame.begin() + 19);
    const Buffer redundant = makeSequenceInfo(1);
    const Buffer noHeader = fromHex("01 00 0200");
    std::vector<InputRow> rows = {
        {"foreign codec", Main, false, foreign,
         WarnLog(
             "Could not select an VLX depayloader for this stream; its packets will be skipped"),
         true},
        {"foreign codec", Side, false, foreign,
         ErrorLog("Got a SequenceInfo packet, but no matching payloader was found"), false},
        {"frame without sequence", Main, false, frame0,
         WarnLog("Dropping received nanomsg VLX Frame packet because no matching VLX depayloader "
                 "was previously found"),
         true},
        {"frame without sequence", Side, false, frame0,
         ErrorLog("Got a Frame packet, but no payloader is present"), false},
        {"unknown type", Main, true, unknown,
         TraceLog("Received nanomsg VLX packet with 5 byte(s); type: unknown"), true},
        {"unknown type", Side, true, unknown,
         TraceLog("Received sidechannel VLX packet with 5 byte(s); type: unknown"), true},
        {"known sequence", Main, true, redundant,
         TraceLog("Dropping received nanomsg VLX packet with 14 byte(s)"), true},
        {"known sequence", Side, true, redundant,
         DebugLog("Dropping received sidechannel VLX packet with 14 bytes"), true},
        {"frame", Side, true, frame,
         ErrorLog("Got a Frame packet over the sidechannel; this is not supposed to happen!"),
         true},
        {"empty", Main, true, Buffer(),
         ErrorLog("Received nanomsg VLX packet is too short: 0 byte(s)"), true},
        {"header only", Main, true, noHeader,
         ErrorLog("Received nanomsg VLX packet is too short: 4 byte(s)"), true},
        {"one byte", Side, true, Buffer(1),
         ErrorLog("Received sidechannel VLX packet is too short: 1 byte(s)"), false},
        {"header only", Side, true, noHeader,
         ErrorLog("Received sidechannel VLX packet is too short: 4 byte(s)"), false}};
    const LogExpectation error = ErrorLog("Error while consuming VLX packet");
    for (const bool isMain : {true, false})
    {
        rows.push_back({"rejected header", isMain, false, rejected, error, false});
        rows.push_back({"no FourCC", isMain, true, withoutFourcc, error, false});
        rows.push_back({"frame without duration", isMain, true, shortFrame, error, false});
    }
    return rows;
}

TEST_F(ReceiverTest, TheChannelsDifferInWhatTheyTolerate)
{
    for (const InputRow& row : makeInputRows())
    {
        SCOPED_TRACE(std::string(row.name) + (row.isMain ? ", main channel" : ", sidechannel"));
        log().clear();
        RawSender sender(getSocketName(), NanomsgProtocol::PubSub);
        RecordedReceiver receiver(getSocketName());
        ASSERT_TRUE(sender.greet() && sender.joinMainChannel());
        if (row.isInSequence)
        {
            ASSERT_TRUE(sender.sendOverSidechannel(makeSequenceInfo(1)));
            ASSERT_TRUE(receiver.waitForEvent("ready"));
        }

        ASSERT_TRUE(
            row.isMain ? sender.sendOverMainChannel(row.packet)
                       : sender.sendOverSidechannel(row.packet));
        EXPECT_TRUE(log().waitFor(row.expected));

        if (row.isConnectionKept)
        {
            ASSERT_TRUE(sender.sendOverSidechannel(makeSequenceInfo(9)));
            EXPECT_TRUE(receiver.waitForEvent("sequence", row.isInSequence ? 2 : 1));
            EXPECT_FALSE(log().contains(DebugLog(ConnectionGone)));
        }
        else
        {
            EXPECT_TRUE(log().waitFor(DebugLog(ConnectionGone)));
            EXPECT_TRUE(sender.getSidechannel().waitForClose());
        }
        EXPECT_EQ(receiver.count("frame"), std::string(row.name) == "frame" ? 1U : 0U);
    }
}

TEST_F(ReceiverTest, MissingCallbacksAreSkipped)
{
    RawSender sender(getSocketName(), NanomsgProtocol::PubSub);
    PcmDepayloader depayloader;
    Receiver receiver;
    receiver.addDepayloader(depayloader);
    ASSERT_TRUE(receiver.initializeReceiver(getSocketName()));
    ASSERT_TRUE(sender.serve());
    ASSERT_TRUE(log().waitFor(DebugLog("Matching payloader found")));
    ASSERT_TRUE(sender.sendOverMainChannel(makeFrame(1, 1)));
    ASSERT_TRUE(log().waitFor(TraceLog(StartsWith("Received nanomsg VLX packet with 24"))));
    ASSERT_TRUE(waitFor(isListening));
    EXPECT_FALSE(log().contains(TraceLog(StartsWith("Calling media data callback"))));
    kit::stopPromptly(receiver);
    EXPECT_TRUE(log().contains(DebugLog("Receiver shut down")));
    EXPECT_FALSE(hasLoggedProblems());
}

/// Sends a frame from inside a callback, and waits until it can be received.
void sendNextFrame(RawSender& sender, Receiver& receiver, std::uint8_t timestamp)
{
    EXPECT_TRUE(sender.sendOverMainChannel(makeFrame(1, timestamp)));
    EXPECT_TRUE(waitFor([&] { return isReadable(receiver.*Access::NanomsgWatchFD); }));
}

TEST_P(ReceiverTransportTest, AWakeupGoesBeforeWaitingData)
{
    RawSender sender(getSocketName(), GetParam());
    RecordedReceiver receiver;
    receiver.onEvent(
        [&](const std::string& event)
        {
            if (event != "frame 1")
                return;
            sendNextFrame(sender, receiver.get(), 2);
            EXPECT_TRUE(sender.sendOverSidechannel(makeSequenceInfo(2)));
            EXPECT_EQ(::write((receiver.get().*Access::LoopWakeupPipe)[1], "1", 1), 1);
            log().clear();
        });
    ASSERT_TRUE(join(receiver, sender));
    ASSERT_TRUE(sender.sendOverMainChannel(makeFrame(1, 1)));
    EXPECT_TRUE(receiver.waitForEvent("idle"));
    EXPECT_EQ(receiver.count("frame"), 1U);
    EXPECT_EQ(receiver.count("sequence"), 1U);
}

TEST_P(ReceiverTransportTest, BufferedPacketsAreDeliveredAfterTheSidechannelHasClosed)
{
    constexpr std::uint8_t NumFrames = 20;
    RawSender sender(getSocketName(), GetParam());
    RecordedReceiver receiver;
    std::uint8_t timestamp = 1;
    receiver.onEvent(
        [&](const std::string& event)
        {
            if (event == "frame 1")
                sender.getSidechannel().close();
            if (event.starts_with("frame") && timestamp < NumFrames)
                sendNextFrame(sender, receiver.get(), ++timestamp);
        });
    ASSERT_TRUE(join(receiver, sender));
    ASSERT_TRUE(sender.sendOverMainChannel(makeFrame(1, 1)));
    EXPECT_TRUE(receiver.waitForEvent("connecting", 2));
    EXPECT_EQ(receiver.count("frame"), NumFrames);
    EXPECT_EQ(log().count(DebugLog(StartsWith("Closing sidechannel"))), 1U);
}

// Sender-presence monitor

TEST_F(ReceiverTest, DirectoriesOfSendersAreSeenAtTheStart)
{
    const fs::path directory = getTempDirectory();
    const auto makeDirectory = [](const fs::path& path) { fs::create_directory(path); };
    const auto makeLink = [](const fs::path& path) { fs::create_symlink("/", path); };
    const auto makeBrokenLink = [](const fs::path& path) { fs::create_symlink("no", path); };
    const std::tuple<const char*, std::function<void(const fs::path&)>, bool> rows[] = {
        {"VlxSender-abcdef", makeDirectory, true},   {"VlxSender-", makeDirectory, true},
        {"VlxSender-file", createFile, false},       {"VlxSender-link", makeLink, true},
        {"VlxSender-broken", makeBrokenLink, false}, {"xVlxSender-abcdef", makeDirectory, false},
        {"VlxSender", makeDirectory, false},
    };
    for (const auto& [entry, make, isSeen] : rows)
    {
        SCOPED_TRACE(entry);
        log().clear();
        make(directory / entry);
        RecordedReceiver receiver(getSocketName());
        EXPECT_EQ(
            log().count(DebugLog("Sender " + std::string(entry) + " already created")),
            isSeen ? 1U : 0U);
        EXPECT_EQ(log().count(DebugLog(StartsWith("Sender "))), isSeen ? 1U : 0U);
        receiver.stop();
        fs::remove(directory / entry);
    }
}

TEST_F(ReceiverTest, WatchesTheDirectoryThatItIsGiven)
{
    const fs::path directory = fs::path(getTempDirectory()) / "base";
    fs::create_directory(directory);
    RecordedReceiver receiver;
    for (const std::string& watched : {directory.string(), getTempDirectory()})
    {
        receiver.get().setBaseDirectory(watched == getTempDirectory() ? "" : watched);
        ASSERT_TRUE(receiver.start(getSocketName()));
        EXPECT_TRUE(log().contains(DebugLog("Opened " + watched)));
        fs::create_directory(watched + "/VlxSender-abcdef");
        EXPECT_TRUE(log().waitFor(DebugLog(StartsWith("Sender VlxSender-abcdef initializing"))));
        kit::stopPromptly(receiver.get(), watched);
        fs::remove(watched + "/VlxSender-abcdef");
        log().clear();
    }
    fs::remove(directory);
}

} // namespace

} // namespace vlx
