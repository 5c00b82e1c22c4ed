#include <cerrno>
#include <tuple>

#include <fcntl.h>
#include <nanomsg/nn.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxSender.hpp>

#include "base/Guards.hpp"
#include "base/SenderDirectory.hpp"
#include "base/WakeupPipe.hpp"
#include "support/HostilePeer.hpp"
#include "support/RawSender.hpp"
#include "support/ResourceLimit.hpp"
#include "support/TestAccess.hpp"
#include "support/VlxTest.hpp"

namespace vlx
{

using namespace vlx::testing;

using Access = SenderTestAccess;

namespace
{

constexpr std::size_t LongestName = 107;
constexpr const char* SendingData = "Sending data with [0-9]+ bytes over nanomsg SP socket";
constexpr const char* NewClient = "New client connection: FD ";

std::atomic<bool> failCloseRange = false;

int countBytesInPipe(int readEnd)
{
    int numBytes = -1;
    ::ioctl(readEnd, FIONREAD, &numBytes);
    return numBytes;
}

std::function<void(const fs::path&)> onNewDirectory; // after each mkdtemp
std::mutex closingMutex; // while it is locked, no close of many descriptors returns

/// Wrappers through which the linker routes the system's calls.
extern "C"
{
    // NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
    int __real_close_range(unsigned int first, unsigned int last, int flags);
    char* __real_mkdtemp(char* pattern);

    int __wrap_close_range(unsigned int first, unsigned int last, int flags)
    {
        if (!failCloseRange)
        {
            if (first == 0)
                const std::lock_guard<std::mutex> lock(closingMutex);
            return __real_close_range(first, last, flags);
        }
        errno = ENOSYS;
        return -1;
    }

    char* __wrap_mkdtemp(char* pattern)
    {
        char* const path = __real_mkdtemp(pattern);
        if (path != nullptr && onNewDirectory)
            onNewDirectory(path);
        return path;
    }
    // NOLINTEND(bugprone-reserved-identifier)
}

class SenderTest : public VlxTest
{
protected:
    SenderTest()
    {
        m_payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    }

    void TearDown() override
    {
        m_sender.shutdownSender();
        VlxTest::TearDown();
    }

    bool initialize(NanomsgProtocol protocol = NanomsgProtocol::PubSub)
    {
        return initialize(m_sender, getSocketName(), "", protocol);
    }

    static bool initialize(
        Sender& sender,
        const std::string& name,
        const std::string& alternative = "",
        NanomsgProtocol protocol = NanomsgProtocol::PubSub)
    {
        return sender.initializeSender(
            name, alternative, "", 0, TimeSyncProtocol::MonotonicSystemClock, protocol);
    }

    /// Initialises the sender and opens the first sequence.
    void startStream(NanomsgProtocol protocol = NanomsgProtocol::PubSub)
    {
        ASSERT_TRUE(initialize(protocol));
        m_sender.setCurrentPayloader(m_payloader);
        m_sender.startNewSequence();
    }

    /// Joins the main channel as a receiver does, and waits until the sender has noticed it.
    void join(RawNanomsg& receiver, NanomsgProtocol protocol = NanomsgProtocol::PubSub)
    {
        const std::string& uri = m_sender.*Access::NanomsgURI;
        const std::size_t numReceivers = m_sender.getNumReceivers();
        ASSERT_TRUE(
            protocol == NanomsgProtocol::Pipeline ? receiver.bind(uri) : receiver.connect(uri));
        ASSERT_TRUE(waitFor([&] { return m_sender.getNumReceivers() == numReceivers + 1; }));
    }

    void sendFrame(std::uint8_t timestamp, const Buffer& mediaData)
    {
        m_sender.sendMediaData(timestamp, 10, mediaData);
    }

    bool waitForClients(std::size_t number)
    {
        return waitFor([&] { return getClients().size() == number; });
    }

    /// @return descriptors of the sender's ends of the sidechannel connections
    std::vector<int> getClients()
    {
        const std::vector<int> fds = Access::getPolledFDs(m_sender);
        return {fds.begin() + 2, fds.end()};
    }

    /// Connects a client, and takes its greeting.
    RawConnection connectGreeted()
    {
        const std::size_t numBefore = getClients().size();
        RawConnection client(getSocketName());
        EXPECT_TRUE(client.readMessage());
        EXPECT_TRUE((m_sender.*Access::SequenceInfoPacket).empty() || client.readMessage());
        EXPECT_TRUE(waitForClients(numBefore + 1));
        return client;
    }

    static LogExpectation closedLog(int fd, std::size_t remaining)
    {
        return DebugLog(
            "Client connection with FD " + std::to_string(fd) + " got closed; " +
            std::to_string(remaining) + " connection(s) remain");
    }

    /// Connects a client that is accepted, but gets no packets while the lock is held.
    ///
    /// The listener thread takes the lock twice per pass: to check whether to continue, and to send
    /// the packets. If the lock is taken while the thread is in poll, it blocks the thread before
    /// it sends. If it is taken between two passes, it blocks the thread before poll, where no
    /// client is accepted: then this client is served and closed, and the next one tries again.
    RawConnection connectUngreeted(std::unique_lock<std::mutex>& lock)
    {
        constexpr std::chrono::milliseconds TryDuration{200};
        const LogExpectation accepted = DebugLog(StartsWith(NewClient));
        for (;;)
        {
            const std::size_t numBefore = log().count(accepted);
            lock = Access::lock(m_sender);
            RawConnection client(getSocketName());
            if (!client.isOpen() ||
                waitFor([&] { return log().count(accepted) > numBefore; }, TryDuration))
                return client;

            // The listener thread was already waiting for the lock, on its way to poll.
            lock.unlock();
            client.readMessage();
            if (!(m_sender.*Access::SequenceInfoPacket).empty())
                client.readMessage();
            client.close();
            waitForClients(0);
        }
    }

    /// Releases the resources that a failed initialisation keeps.
    static void release(Sender& sender)
    {
        closePipe(sender.*Access::ListenerWakeupPipe);
        closePipe(sender.*Access::NanomsgWakeupPipe);
        (sender.*Access::ShutdownListener)();
        const std::string& uri = sender.*Access::NanomsgURI;
        if (!uri.empty())
            fs::remove_all(fs::path(toSocketFilePath(uri)).parent_path());
    }

    /// A call of the sender's that waits for a receiver, on a thread of its own.
    class BlockedCall
    {
    public:
        BlockedCall(Sender& sender, std::function<void()> call) : m_sender(sender)
        {
            log().clear();
            m_future = std::async(std::launch::async, std::move(call));
            EXPECT_TRUE(log().waitFor(TraceLog(MatchesRegex(SendingData))));
        }

        ~BlockedCall()
        {
            m_sender.disableSend(true);
        }

        bool isOver(std::chrono::milliseconds deadline = DefaultDeadline) const
        {
            return m_future.wait_for(deadline) == std::future_status::ready;
        }

    private:
        Sender& m_sender;
        std::future<void> m_future;
    };

    PcmPayloader m_payloader;
    Sender m_sender;
};

using SenderDeathTest = SenderTest;

class SenderTransportTest : public SenderTest, public ::testing::WithParamInterface<NanomsgProtocol>
{
};

/// Attack of a peer, and whether the kernel lacks close_range().
class SenderAgainstTricks : public SenderTest,
                            public ::testing::WithParamInterface<std::tuple<Trick, bool>>
{
protected:
    void TearDown() override
    {
        SenderTest::TearDown();
        failCloseRange = false;
    }
};

INSTANTIATE_TEST_SUITE_P(
    Tricks,
    SenderAgainstTricks,
    ::testing::Combine(AllTricks, ::testing::Bool()),
    [](const auto& row)
    {
        return ::testing::PrintToString(std::get<0>(row.param)) +
               (std::get<1>(row.param) ? "OnAnOldKernel" : "");
    });

INSTANTIATE_TEST_SUITE_P(
    Transports,
    SenderTransportTest,
    ::testing::Values(NanomsgProtocol::PubSub, NanomsgProtocol::Pipeline),
    ::testing::PrintToStringParamName());

} // namespace

TEST_P(SenderTransportTest, ShutdownLeavesNothingAndItCanBeInitializedAgain)
{
    startStream(GetParam());
    const std::string firstURI = m_sender.*Access::NanomsgURI;
    log().clear();
    EXPECT_TRUE(initialize(m_sender, std::string(50, 'x'), "", NanomsgProtocol{9}));
    EXPECT_EQ(m_sender.*Access::NanomsgURI, firstURI);
    EXPECT_TRUE(log().isExactly({})) << "it is open already";

    RawConnection client = connectGreeted();
    m_sender.shutdownSender();
    EXPECT_TRUE(client.waitForClose());
    EXPECT_THAT(listTempDirectory(), IsEmpty());
    EXPECT_TRUE(Access::getPolledFDs(m_sender).empty());
    EXPECT_TRUE(m_sender.*Access::SendDisabled);
    log().clear();
    m_sender.shutdownSender();
    EXPECT_TRUE(log().isExactly({}));

    ASSERT_TRUE(initialize(GetParam()));
    EXPECT_FALSE(m_sender.*Access::SendDisabled);
    EXPECT_NE(m_sender.*Access::NanomsgURI, firstURI);
    RawConnection next(getSocketName());
    EXPECT_EQ(next.readMessage(), makeInitialInfo(m_sender.*Access::NanomsgURI, GetParam()));
    EXPECT_EQ(next.readMessage(), makeSequenceInfo(1)) << "the one from before";
}

TEST_P(SenderTransportTest, PlainSocketsReadTheStreamByteForByte)
{
    const auto inherited = listInheritedDescriptors();
    const RawClockInfo clock{"10.1.2.3", 0x1234, TimeSyncProtocol::GstNetClock};
    ASSERT_TRUE(m_sender.initializeSender(
        getSocketName(), "", clock.address, 0x10000U + clock.port, clock.protocol, GetParam()));
    m_sender.setCurrentPayloader(m_payloader);
    m_sender.startNewSequence();
    const std::string uri = m_sender.*Access::NanomsgURI;
    int queueBytes = 0; // frames must not queue and age
    std::size_t optionSize = sizeof(queueBytes);
    const int mainFD = m_sender.*Access::NanomsgMainFD;
    ASSERT_EQ(::nn_getsockopt(mainFD, NN_SOL_SOCKET, NN_SNDBUF, &queueBytes, &optionSize), 0);
    EXPECT_EQ(queueBytes, 1);

    RawConnection client(getSocketName());
    EXPECT_EQ(client.readMessage(), makeInitialInfo(uri, GetParam(), clock)) << "a port is cut";
    EXPECT_EQ(client.readMessage(), makeSequenceInfo(1));
    EXPECT_THAT(listThreads(), Contains(::testing::Pair(_, "vlx-listener")));

    const bool isPipeline = GetParam() == NanomsgProtocol::Pipeline;
    RawNanomsg pull(NN_PULL);
    RawNanomsg sub(NN_SUB);
    RawNanomsg& receiver = isPipeline ? static_cast<RawNanomsg&>(pull) : sub;
    EXPECT_EQ(m_sender.getNumReceivers(), 0U);
    ASSERT_NO_FATAL_FAILURE(join(receiver, GetParam()));
    EXPECT_EQ(listInheritedDescriptors(), inherited);

    for (const std::size_t size : {0U, 1U, 1920U, 300'000U, 1920U})
    {
        const Buffer mediaData(size, static_cast<std::uint8_t>(size));
        sendFrame(7, mediaData);
        EXPECT_EQ(receiver.receive(), makeFrame(1, 7, mediaData)) << size;
    }
    EXPECT_TRUE(log().contains(
        TraceLog("Payloader wrapped media data with 1920 byte into packet with 1940 byte")));
    m_sender.startNewSequence();
    EXPECT_EQ(receiver.receive(), makeSequenceInfo(2));
    sendFrame(8, {1, 2});
    EXPECT_EQ(receiver.receive(), makeFrame(2, 8, {1, 2}));
    EXPECT_FALSE(isReadable(client.getFD())) << "only newcomers are told on the sidechannel";

    receiver.close();
    EXPECT_TRUE(waitFor([&] { return m_sender.getNumReceivers() == 0; }));
    m_sender.shutdownSender();
    EXPECT_EQ(m_sender.getNumReceivers(), 0U);
}

TEST_F(SenderTest, LongNamesAreReportedAndCut)
{
    for (const std::size_t length : {LongestName, LongestName + 1, std::size_t{120}})
    {
        SCOPED_TRACE(length);
        std::string name = getSocketName();
        name.resize(LongestName, 'n');
        name.resize(length, 'x');
        log().clear();
        ASSERT_TRUE(initialize(m_sender, name));

        const LogExpectation tooLong = ErrorLog(
            "Cannot set up sender since the Unix domain socket address is too long (max allowed "
            "length: 107 actual length: " +
            std::to_string(length) + ")");
        EXPECT_EQ(log().count(tooLong), length > LongestName ? 1U : 0U);

        RawConnection client(name.substr(0, LongestName));
        EXPECT_TRUE(client.readMessage().has_value());
        client.close();
        m_sender.shutdownSender();
    }
}

TEST_F(SenderTest, TakenNameIsReplacedByAFreeAlternative)
{
    // Longer than the alternative, so that a remainder would be noticed.
    std::string taken = getSocketName();
    taken.resize(LongestName, 't');
    RawSidechannelServer other(taken);
    ASSERT_TRUE(other.isListening());
    std::string longAlternative = getSocketName() + "-long";
    longAlternative.resize(LongestName + 20, 'a');
    const LogExpectation bindFailed =
        DebugLog("Could not bind listener socket: Address already in use (98)");

    for (const std::string& alternative :
         {getSocketName() + "-b", longAlternative, std::string(), taken})
    {
        SCOPED_TRACE(alternative);
        log().clear();
        Sender sender;
        const bool isFree = !alternative.empty() && alternative != taken;
        ASSERT_EQ(initialize(sender, taken, alternative), isFree);
        EXPECT_EQ(log().count(bindFailed), alternative == taken ? 2U : 1U);
        EXPECT_EQ(log().count(ErrorLog("Failed to set up the listener socket")), isFree ? 0U : 1U);
        if (isFree)
        {
            RawConnection client(alternative.substr(0, LongestName));
            EXPECT_TRUE(client.readMessage().has_value());
            client.close();
            continue;
        }
        EXPECT_FALSE(sender.*Access::Initialized);
        EXPECT_EQ(sender.*Access::ListenerSocketFD, -1);
        log().clear();
        sender.shutdownSender();
        EXPECT_TRUE(log().isExactly({}));
        release(sender);
    }
}

TEST_F(SenderTest, ASetDirectoryOverridesTheVariable)
{
    ::unsetenv("TMPDIR");
    EXPECT_EQ(getBaseDirectory(), "/tmp/vlx");
    ::setenv("TMPDIR", "", 1);
    EXPECT_EQ(getBaseDirectory(), "");
    ::setenv("TMPDIR", "/nowhere/at/all", 1);
    Sender sender;
    EXPECT_FALSE(initialize(sender, getSocketName()));
    EXPECT_TRUE(log().isExactly(
        {TraceLog(StartsWith("Setting up sender")),
         ErrorLog("Could not create temporary directory for nanomsg SP socket: No such file or "
                  "directory (2)")}));
    release(sender);

    const fs::path base = fs::path(getTempDirectory()) / "base";
    fs::create_directory(base);
    m_sender.setBaseDirectory(base);
    ASSERT_TRUE(initialize());
    EXPECT_THAT(m_sender.*Access::NanomsgURI, StartsWith("ipc://" + base.string() + "/"));
    m_sender.shutdownSender();
    EXPECT_TRUE(fs::remove(base)) << "nothing is left in it";

    m_sender.setBaseDirectory("");
    ::setenv("TMPDIR", getTempDirectory().c_str(), 1);
    ASSERT_TRUE(initialize());
    EXPECT_THAT(m_sender.*Access::NanomsgURI, StartsWith("ipc://" + getTempDirectory() + "/Vlx"));
}

TEST_P(SenderTransportTest, TempDirectoryIsOpenToAllUsers)
{
    const mode_t mask = ::umask(0077);
    ASSERT_TRUE(initialize(GetParam()));
    ::umask(mask);
    const fs::path directory =
        fs::path(toSocketFilePath(m_sender.*Access::NanomsgURI)).parent_path();
    EXPECT_THAT(directory.filename().string(), MatchesRegex("VlxSender-[A-Za-z0-9]{6}"));
    EXPECT_EQ(fs::status(directory).permissions(), fs::perms{0777});
    // In a pipeline the receiver creates it.
    EXPECT_EQ(fs::exists(directory / "nanomsgChannel.ipc"), GetParam() == NanomsgProtocol::PubSub);
}

TEST_F(SenderTest, OnlyTheNewDirectoryGetsItsMode)
{
    const fs::path victim = fs::path(getTempDirectory()) / "victim";
    const auto makeLink = [&](const fs::path& path)
    {
        ::mkdir(victim.c_str(), 0700);
        fs::create_symlink(victim, path);
    };
    const auto makeReadable = [](const fs::path& path) { ::mkdir(path.c_str(), 0750); };
    const auto makeForeign = [](const fs::path& path)
    {
        ::mkdir(path.c_str(), 0700);
        ::chown(path.c_str(), 65534, 65534); // fails for other users than root
    };
    const struct
    {
        const char* name;
        std::function<void(const fs::path&)> make;
        int mode;
    } rows[] = {
        {"link to a directory", makeLink, 0700},
        {"directory with another mode", makeReadable, 0750},
        {"directory of another user", makeForeign, ::geteuid() == 0 ? 0700 : 0777},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        fs::path place;
        onNewDirectory = [&](const fs::path& path)
        {
            place = path;
            fs::remove(path);
            row.make(path);
        };
        Sender sender;
        ASSERT_TRUE(initialize(sender, getSocketName()));
        onNewDirectory = nullptr;
        EXPECT_EQ(fs::status(place).permissions(), fs::perms(row.mode));
        sender.shutdownSender();
        fs::remove_all(place);
        fs::remove_all(victim);
    }
}

TEST_F(SenderTest, DataFromReceiversIsDiscarded)
{
    ASSERT_TRUE(initialize());
    RawConnection first = connectGreeted();
    RawConnection second = connectGreeted();
    EXPECT_FALSE(isReadable(first.getFD())) << "no sequence yet";
    const std::vector<int> fds = getClients();
    ASSERT_TRUE(first.send(Buffer(1000, 0xAA)));
    ASSERT_TRUE(second.send(Buffer(3, 0xAA), 1));
    EXPECT_TRUE(
        waitFor([&] { return countBytesInPipe(fds[0]) == 0 && countBytesInPipe(fds[1]) == 0; }));
    EXPECT_EQ(getClients(), fds);

    first.close();
    EXPECT_TRUE(log().waitFor(closedLog(fds[0], 1)));
    EXPECT_EQ(getClients(), std::vector<int>{fds[1]});
    second.close();
    EXPECT_TRUE(log().waitFor(closedLog(fds[1], 0)));
    EXPECT_EQ(log().count(ErrorLog(_)), 0U);

    {
        const RawConnection leavesUnread(getSocketName());
        ASSERT_TRUE(waitFor([&] { return isReadable(leavesUnread.getFD()); }) && waitForClients(1));
    }
    ASSERT_TRUE(waitForClients(0));
    EXPECT_TRUE(log().contains(ErrorLog("Error trying to receive bytes from client connection FD: "
                                        "Connection reset by peer (104)")));
}

TEST_F(SenderTest, ReceiverThatLeavesBeforeItsGreetingDoesNotKill)
{
    // This process is not protected: the default action of SIGPIPE ends it.
    ASSERT_EQ(::signal(SIGPIPE, SIG_DFL), SIG_DFL);
    startStream();
    std::unique_lock<std::mutex> lock;
    for (std::size_t i = 1; i <= 3; ++i)
    {
        RawConnection client = connectUngreeted(lock);
        client.close();
        lock.unlock();
        ASSERT_TRUE(log().waitFor(
            ErrorLog(MatchesRegex("Could not send message size to client connection with FD [0-9]+:"
                                  " Broken pipe \\(32\\)")),
            2 * i));
    }
    EXPECT_TRUE(waitForClients(0));
    EXPECT_FALSE(log().contains(ErrorLog(HasSubstr("payload"))));

    sigset_t mask{};
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(::sigismember(&mask, SIGPIPE), 0) << "the application's threads keep their mask";
}

TEST_P(SenderAgainstTricks, HoldsNeitherListenerNorShutdown)
{
    const auto& [trick, isKernelOld] = GetParam();
    failCloseRange = isKernelOld;
    HostilePeer peer(trick, getTempDirectory());
    startStream();

    // On a connection that is read.
    RawConnection client = connectGreeted();
    const int clientFD = getClients().at(0);
    ASSERT_TRUE(peer.play(client));
    if (passesDescriptor(trick))
    {
        EXPECT_TRUE(client.waitForClose());
        EXPECT_TRUE(log().waitFor(closedLog(clientFD, 0)));
    }
    EXPECT_TRUE(waitFor([&] { return countBytesInPipe(clientFD) <= 0; }));
    EXPECT_TRUE(peer.isPrompt([this] { sendFrame(1, {1}); }));
    client.close();
    ASSERT_TRUE(waitForClients(0));

    // On one that is not read any more, and on some that are not accepted.
    std::unique_lock<std::mutex> lock;
    std::vector<RawConnection> clients;
    clients.push_back(connectUngreeted(lock));
    while (clients.size() < 4)
        clients.push_back(RawConnection(getSocketName()));
    for (const RawConnection& each : clients)
        ASSERT_TRUE(peer.play(each));
    ASSERT_EQ(::write((m_sender.*Access::ListenerWakeupPipe)[1], "x", 1), 1); // ends the listener
    lock.unlock();
    ASSERT_TRUE(waitFor([&] { return !(m_sender.*Access::ListenerThreadRunning); }));
    EXPECT_TRUE(peer.isPrompt([this] { m_sender.shutdownSender(); }));
    for (RawConnection& each : clients)
        EXPECT_TRUE(waitFor([&] { return isReadable(each.getFD()); }));
    EXPECT_TRUE(peer.isLockKept());
    EXPECT_EQ(log().count(ErrorLog(_)), 0U);
    EXPECT_TRUE(peer.isPrompt([this] { EXPECT_TRUE(initialize()); })) << "its name is free again";
}

TEST_F(SenderTest, AFullWakeupPipeBlocksNoThread)
{
    startStream();
    const int(&pipe)[2] = m_sender.*Access::NanomsgWakeupPipe;
    {
        const Descriptor other(::open(
            ("/proc/self/fd/" + std::to_string(pipe[1])).c_str(),
            O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        const Buffer page(4096);
        while (::write(other.get(), page.data(), page.size()) > 0)
        {
        }
    }
    m_sender.disableSend(true);
    m_sender.disableSend(false);
    RawNanomsg receiver(NN_SUB);
    ASSERT_NO_FATAL_FAILURE(join(receiver));
    sendFrame(1, {1});
    EXPECT_EQ(receiver.receive(), makeFrame(1, 1, {1}));
    m_sender.shutdownSender();
    EXPECT_THAT(listTempDirectory(), IsEmpty());
}

TEST_F(SenderTest, AFileOfTheHostThatCannotBeClosedDelaysNothing)
{
    constexpr int MaxHeld = 16;
    ASSERT_TRUE(initialize());
    const auto numBefore = listThreads().size();
    const std::unique_lock<std::mutex> hung(closingMutex);
    for (int i = 0; i < MaxHeld + 4 && !HasFailure(); ++i)
    {
        RawConnection client(getSocketName());
        EXPECT_TRUE(client.readMessage());
        EXPECT_TRUE(passDescriptor(client.getFD(), STDERR_FILENO));
        EXPECT_TRUE(client.waitForClose());
    }
    EXPECT_TRUE(waitForClients(0));
    EXPECT_TRUE(waitFor([&] { return listThreads().size() <= numBefore + MaxHeld; }));
    EXPECT_GT(listThreads().size(), numBefore) << "nothing was held";
}

TEST_F(SenderTest, OutOfDescriptorsTheListenerTriesTenTimesASecond)
{
    using Clock = std::chrono::steady_clock;
    const LogExpectation failed =
        ErrorLog("Could not accept new connection: Too many open files (24)");
    const LogExpectation attempt = TraceLog("Listener thread socket activity");
    ::signal(SIGUSR1, [](int) {});
    ASSERT_TRUE(initialize());
    const auto waitInVain = [&]
    {
        std::unique_lock<std::mutex> lock;
        const RawConnection first = connectUngreeted(lock);
        const RawConnection second(getSocketName());
        const int nextFD = Descriptor(::dup(0)).get();
        const ResourceLimit noMore(RLIMIT_NOFILE, static_cast<rlim_t>(nextFD));
        log().clear();
        const auto begin = Clock::now();
        lock.unlock();
        EXPECT_TRUE(waitFor(
            [&]
            {
                // Signals interrupt its wait all the time.
                ::pthread_kill((m_sender.*Access::ListenerThread).native_handle(), SIGUSR1);
                return log().count(attempt) >= 4;
            }));
        const auto tenths = (Clock::now() - begin) / std::chrono::milliseconds(100);
        EXPECT_LE(log().count(attempt), static_cast<std::size_t>(tenths) + 1);
        EXPECT_EQ(log().count(failed), 1U);
    };
    waitInVain();
    ASSERT_TRUE(log().waitFor(DebugLog(StartsWith(NewClient))));
    ASSERT_TRUE(waitForClients(0));
    waitInVain(); // it is reported again
    EXPECT_TRUE(RawConnection(getSocketName()).readMessage().has_value());
    ::signal(SIGUSR1, SIG_DFL);
}

TEST_F(SenderTest, ADelayedListenerRefusesNoClient)
{
    constexpr std::size_t NumWaiting = 32;
    ASSERT_TRUE(initialize());
    std::unique_lock<std::mutex> lock;
    std::vector<RawConnection> clients;
    clients.push_back(connectUngreeted(lock));
    while (clients.size() <= NumWaiting && clients.back().isOpen())
        clients.push_back(RawConnection(getSocketName()));
    lock.unlock();
    for (RawConnection& client : clients)
        EXPECT_TRUE(client.readMessage().has_value());
    EXPECT_TRUE(waitForClients(NumWaiting + 1));
}

TEST_F(SenderTest, AForkHoldsNoConnection)
{
    ASSERT_TRUE(initialize());
    RawConnection client = connectGreeted();
    const pid_t child = ::fork();
    if (child == 0)
    {
        ::pause();
        ::_exit(0);
    }
    m_sender.shutdownSender();
    EXPECT_TRUE(client.waitForClose());
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

TEST_F(SenderTest, WakeupEndsTheListenerThreadAndTheStream)
{
    startStream();
    RawConnection client = connectGreeted();
    ASSERT_EQ(::write((m_sender.*Access::ListenerWakeupPipe)[1], "xyz", 3), 3);
    ASSERT_TRUE(waitFor([&] { return !(m_sender.*Access::ListenerThreadRunning); }));
    EXPECT_TRUE(log().contains(TraceLog("Listener thread loop wakeup activity")));
    EXPECT_EQ(countBytesInPipe((m_sender.*Access::ListenerWakeupPipe)[0]), 0);

    (m_sender.*Access::ShutdownListener)();
    EXPECT_TRUE(client.waitForClose());
    EXPECT_EQ(Access::getPolledFDs(m_sender).size(), 2U) << "only the connections leave it";
    EXPECT_EQ(m_sender.*Access::ListenerSocketFD, -1);

    log().clear();
    m_sender.startNewSequence();
    sendFrame(1, {1});
    EXPECT_TRUE(log().isExactly(
        {DebugLog("Not starting new sequence since the listener thread is not running"),
         TraceLog("Cannot send media data: Listener thread is not running")}));
    EXPECT_EQ(m_sender.*Access::SequenceNr, 1);
    EXPECT_EQ(m_sender.*Access::SequenceInfoPacket, makeSequenceInfo(1));
}

TEST_F(SenderTest, SendingToAllClientsTriesTheFirstTwoEntriesToo)
{
    ASSERT_TRUE(initialize());
    RawConnection client = connectGreeted();
    const LogExpectation failed = ErrorLog(StartsWith("Could not send message size to client"));
    (m_sender.*Access::SendToAllClients)(Buffer(40, 0x40));
    (m_sender.*Access::SendToAllClients)(Buffer(12, 0x12));
    EXPECT_EQ(log().count(failed), 4U) << "the wakeup pipe and the listening socket";
    EXPECT_EQ(client.readMessage(), Buffer(40, 0x40));
    EXPECT_EQ(client.readMessage(), Buffer(12, 0x12));

    // A receiver that does not read is not waited for.
    EXPECT_TRUE(waitFor(
        [&]
        {
            (m_sender.*Access::SendToAllClients)(Buffer(100'000));
            return log().contains(ErrorLog(HasSubstr("Resource temporarily unavailable (11)")));
        }));
    EXPECT_EQ(getClients().size(), 1U);
}

TEST_F(SenderTest, SequenceNumbersSkipZero)
{
    ASSERT_TRUE(initialize());
    m_sender.setCurrentPayloader(m_payloader);
    const std::pair<std::uint16_t, std::uint16_t> rows[] = {
        {0, 1}, {1, 2}, {255, 256}, {65534, 65535}, {65535, 1}};
    for (const auto& [before, after] : rows)
    {
        m_sender.*Access::SequenceNr = before;
        m_sender.startNewSequence();
        EXPECT_EQ(m_sender.*Access::SequenceNr, after);
        EXPECT_EQ(m_sender.*Access::SequenceInfoPacket, makeSequenceInfo(after));
    }
}

TEST_F(SenderTest, PayloaderChangesAtOnceAndTheSequenceNumberLater)
{
    class Doubling : public Payloader
    {
    public:
        Doubling() : Payloader(1) {}

        std::size_t getSizeForWrappedFrame(const ByteView& mediaData) const override
        {
            return 2 * mediaData.size();
        }
    };
    ASSERT_TRUE(initialize());
    m_sender.setCurrentPayloader(m_payloader);
    RawNanomsg receiver(NN_SUB);
    ASSERT_NO_FATAL_FAILURE(join(receiver));
    sendFrame(1, {1, 2});
    EXPECT_EQ(receiver.receive(), makeFrame(0, 1, {1, 2})) << "before the first sequence";
    m_sender.startNewSequence(); // no client on the sidechannel: not sent on the main channel

    Doubling doubling;
    m_sender.setCurrentPayloader(doubling);
    sendFrame(2, {1, 2});
    EXPECT_EQ(receiver.receive(), makeFrame(1, 2, {1, 2, 0, 0}));
    m_sender.startNewSequence();
    sendFrame(3, {4});
    EXPECT_EQ(receiver.receive(), makeFrame(2, 3, {4, 0}));
}

TEST_F(SenderTest, DisabledSendingDropsFrames)
{
    startStream();
    RawNanomsg receiver(NN_SUB);
    ASSERT_NO_FATAL_FAILURE(join(receiver));
    const int pipe = (m_sender.*Access::NanomsgWakeupPipe)[0];

    m_sender.disableSend(false);
    EXPECT_EQ(countBytesInPipe(pipe), 0);
    m_sender.disableSend(true);
    m_sender.disableSend(true);
    EXPECT_EQ(countBytesInPipe(pipe), 1);
    sendFrame(1, {1});
    m_sender.disableSend(false);
    m_sender.disableSend(false);
    EXPECT_EQ(countBytesInPipe(pipe), 1);

    // A wakeup byte without a waiting send is drained, and the frame is sent.
    sendFrame(2, {2});
    EXPECT_EQ(countBytesInPipe(pipe), 0);
    EXPECT_EQ(receiver.receive(), makeFrame(1, 2, {2}));

    m_sender.shutdownSender();
    log().clear();
    m_sender.disableSend(true);
    EXPECT_TRUE(log().isExactly({})) << "disabled already";
    m_sender.disableSend(false);
    m_sender.disableSend(true); // there is no pipe to write to
    EXPECT_EQ(log().count(ErrorLog(_)), 0U);
    ASSERT_TRUE(initialize());
    EXPECT_FALSE(m_sender.*Access::SendDisabled);
}

TEST_F(SenderTest, BlockedSendIsFreedByDisabling)
{
    startStream(NanomsgProtocol::Pipeline);
    const BlockedCall blocked(m_sender, [this] { sendFrame(1, {1}); });
    EXPECT_FALSE(blocked.isOver(std::chrono::milliseconds(50)));
    m_sender.disableSend(true);
    ASSERT_TRUE(blocked.isOver());
    EXPECT_EQ(countBytesInPipe((m_sender.*Access::NanomsgWakeupPipe)[0]), 0);

    // A byte left from a change that unblocked no send costs the next frame, silently.
    m_sender.disableSend(false);
    m_sender.disableSend(true);
    m_sender.disableSend(false);
    sendFrame(2, {2});

    RawNanomsg receiver(NN_PULL);
    ASSERT_NO_FATAL_FAILURE(join(receiver, NanomsgProtocol::Pipeline));
    EXPECT_FALSE(log().contains(DebugLog(StartsWith("Could not send data"))));
    sendFrame(3, {3});
    EXPECT_EQ(receiver.receive(), makeFrame(1, 3, {3})) << "the dropped frames stay dropped";

    m_sender.shutdownSender();
    EXPECT_THAT(listTempDirectory(), IsEmpty()) << "the receiver's socket file was there";
}

TEST_F(SenderTest, AReceiverThatLeavesBeforeTheSendDoesNotBlockIt)
{
    startStream(NanomsgProtocol::Pipeline);
    const Descriptor ready(::eventfd(1, EFD_CLOEXEC)); // although there is no receiver any more
    const int watchFD = std::exchange(m_sender.*Access::NanomsgWatchFD, ready.get());
    auto sent = std::async(std::launch::async, [this] { sendFrame(1, {1}); });
    EXPECT_EQ(sent.wait_for(DefaultDeadline), std::future_status::ready);
    EXPECT_TRUE(
        log().contains(DebugLog("Could not send data over nanomsg; connection might be gone")));
    m_sender.*Access::NanomsgWatchFD = watchFD;
}

TEST_F(SenderTest, BlockedSendDelaysNoNewReceiver)
{
    startStream(NanomsgProtocol::Pipeline);
    RawConnection client(getSocketName()); // without a client no sequence is announced
    ASSERT_TRUE(waitForClients(1));
    for (const bool isFrame : {false, true})
    {
        m_sender.disableSend(false);
        const BlockedCall blocked(
            m_sender, [&] { isFrame ? sendFrame(1, {1}) : m_sender.startNewSequence(); });
        RawConnection newcomer(getSocketName());
        EXPECT_TRUE(newcomer.readMessage());
        EXPECT_EQ(newcomer.readMessage(), makeSequenceInfo(2));
        m_sender.disableSend(true);
        ASSERT_TRUE(blocked.isOver());
    }
}

TEST_F(SenderTest, SignalsEndNeitherABlockedSendNorTheListener)
{
    static std::atomic<int> numSignals{0};
    std::signal(SIGUSR1, [](int) { ++numSignals; });
    startStream(NanomsgProtocol::Pipeline);
    pthread_t producer{};
    const BlockedCall blocked(
        m_sender,
        [&]
        {
            producer = ::pthread_self();
            sendFrame(1, {1});
        });
    for (const pthread_t thread : {producer, (m_sender.*Access::ListenerThread).native_handle()})
    {
        numSignals = 0;
        ASSERT_TRUE(waitFor(
            [thread]
            {
                ::pthread_kill(thread, SIGUSR1);
                return numSignals >= 20;
            }));
    }
    EXPECT_FALSE(blocked.isOver(std::chrono::milliseconds(0)));
    RawNanomsg receiver(NN_PULL);
    ASSERT_TRUE(receiver.bind(m_sender.*Access::NanomsgURI));
    EXPECT_EQ(receiver.receive(), makeFrame(1, 1, {1}));
    const RawConnection client = connectGreeted();
    EXPECT_EQ(log().count(ErrorLog(_)), 0U);
    EXPECT_TRUE(blocked.isOver());
}

TEST_F(SenderTest, ThreadsMayMeet)
{
    startStream();
    std::atomic<bool> keepRunning = true;
    const auto repeat = [&](const std::function<void(std::uint8_t)>& call)
    {
        return std::async(
            std::launch::async,
            [&keepRunning, call]
            {
                for (std::uint8_t i = 0; keepRunning; ++i)
                    call(i);
            });
    };
    const auto producer = repeat(
        [this](std::uint8_t i)
        {
            if (i % 16 == 0)
                m_sender.startNewSequence();
            sendFrame(i, Buffer(100, i));
        });
    const auto controller = repeat(
        [this](std::uint8_t i)
        {
            m_sender.disableSend(i % 2 == 0);
            m_sender.getNumReceivers();
        });
    for (int i = 0; i < 50; ++i)
    {
        RawConnection client(getSocketName());
        EXPECT_TRUE(client.readMessage());
        const Buffer sequenceInfo = client.readMessage().value_or(Buffer());
        EXPECT_EQ(sequenceInfo, makeSequenceInfo(parsePacketSequenceNr(sequenceInfo)));
    }
    keepRunning = false;
    EXPECT_TRUE(waitForClients(0));
    EXPECT_EQ(log().count(ErrorLog(_)), 0U);
}

TEST_F(SenderDeathTest, FailedMainChannelLeavesTheListenerOpen)
{
    // A length that is valid for a directory, but not for the path of a socket file.
    const fs::path directory = fs::path(getTempDirectory()) / std::string(100, 'd');
    fs::create_directory(directory);
    ::setenv("TMPDIR", directory.c_str(), 1);

    Sender sender;
    EXPECT_FALSE(initialize(sender, getSocketName()));
    EXPECT_TRUE(log().containsInOrder(
        {TraceLog("Listener set up"), ErrorLog(StartsWith("Could not connect the nanomsg SP")),
         ErrorLog("Failed to set up the nanomsg main channel")}));
    EXPECT_GE(sender.*Access::ListenerSocketFD, 0);
    EXPECT_EQ(sender.*Access::NanomsgMainFD, -1);
    EXPECT_EQ(sender.*Access::NanomsgEndpointID, -1);
    sender.shutdownSender();
    EXPECT_GE(sender.*Access::ListenerSocketFD, 0);
    EXPECT_ASSERTION(initialize(sender, getSocketName()), "m_listenerSocketFD < 0");
    release(sender);
    fs::remove_all(directory);
}

TEST_F(SenderDeathTest, BrokenPreconditionsStopTheProcess)
{
    EXPECT_ASSERTION((m_sender.*Access::SendOverNanomsg)(Buffer(5)), "m_nanomsgMainFD >= 0");
    for (const int protocol : {0, 3, 0x102})
    {
        EXPECT_ASSERTION(
            initialize(m_sender, getSocketName(), "", NanomsgProtocol{protocol}), "false");
    }
    ASSERT_TRUE(initialize());
    EXPECT_ASSERTION(m_sender.startNewSequence(), "m_payloader != nullptr");
    EXPECT_ASSERTION(sendFrame(1, {1}), "m_payloader != nullptr");
    EXPECT_ASSERTION((m_sender.*Access::SetupListener)(), "m_listenerSocketFD < 0");
    EXPECT_ASSERTION((m_sender.*Access::SetupNanomsgMainChannel)(), "m_nanomsgMainFD < 0");
}

} // namespace vlx
